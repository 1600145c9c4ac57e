// End to end on a real X server with a real tray: the installed-layout program in
// the build tree, a private Xvfb, trayer as the tray host, and xdotool clicking the
// icon. Skipped when any of those programs is missing.
#include "app/WindowPlacement.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>
#include <gtest/gtest.h>

#include <unistd.h>

namespace {

struct WindowGeometry
{
    qulonglong id = 0;
    QRect rect;
};

class TraySmokeTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        for (const char *tool : {"Xvfb", "trayer", "xdotool"})
            if (QStandardPaths::findExecutable(QLatin1String(tool)).isEmpty())
                GTEST_SKIP() << tool << " is not installed";

        // A display number nobody uses.
        for (int n = 90 + getpid() % 100;; ++n) {
            if (!QFile::exists(QStringLiteral("/tmp/.X11-unix/X%1").arg(n))
                && !QFile::exists(QStringLiteral("/tmp/.X%1-lock").arg(n))) {
                display = QStringLiteral(":%1").arg(n);
                break;
            }
        }
        start(xserver, QStringLiteral("Xvfb"),
              {display, QStringLiteral("-screen"), QStringLiteral("0"), QStringLiteral("1280x800x24"),
               QStringLiteral("-nolisten"), QStringLiteral("tcp")});
        // The socket appears before the server takes clients: wait until it answers.
        ASSERT_TRUE(QTest::qWaitFor([&] { return !xdotool({"getdisplaygeometry"}).isEmpty(); }, 20000))
            << "Xvfb did not start";

        // trayer gives up at once on a display that is not ready yet; start it again then.
        const QStringList trayArguments =
            QStringLiteral("--edge top --align right --widthtype pixel --width 200 --height 32 --SetDockType true")
                .split(QLatin1Char(' '));
        ASSERT_TRUE(QTest::qWaitFor(
            [&] {
                if (tray.state() == QProcess::NotRunning)
                    start(tray, QStringLiteral("trayer"), trayArguments);
                return !xdotool({"search", "--class", "^trayer$"}).isEmpty();
            },
            20000))
            << "no tray host";

        // A throwaway home whose settings take the main-window path.
        QDir(home.path()).mkpath(QStringLiteral(".config/Vistrel"));
        QFile settings(home.path() + QStringLiteral("/.config/Vistrel/Vistrel.conf"));
        ASSERT_TRUE(settings.open(QIODevice::WriteOnly));
        settings.write("[General]\nonboardingComplete=true\nextensionInstalled=true\n");
        settings.close();
        QTcpServer closed; // a port that refuses, so the update check fails quietly
        closed.listen(QHostAddress::LocalHost, 0);
        const quint16 port = closed.serverPort();
        closed.close();

        QProcessEnvironment environment = baseEnvironment();
        environment.insert(QStringLiteral("HOME"), home.path());
        environment.insert(QStringLiteral("XDG_CONFIG_HOME"), home.path() + QStringLiteral("/.config"));
        environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
        environment.insert(QStringLiteral("VISTREL_UPDATE_URL"),
                           QStringLiteral("http://127.0.0.1:%1/updates/latest.json").arg(port));
        app.setProcessEnvironment(environment);
        app.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        app.setStandardOutputFile(QProcess::nullDevice());
        app.start(QStringLiteral(VISTREL_BINARY_DIR "/bin/vistrel"), {});
        ASSERT_TRUE(app.waitForStarted(5000));
    }

    void TearDown() override
    {
        for (QProcess *process : {&app, &tray, &xserver}) {
            if (process->state() == QProcess::NotRunning)
                continue;
            process->terminate();
            if (!process->waitForFinished(3000)) {
                process->kill();
                process->waitForFinished(3000);
            }
        }
    }

    QProcessEnvironment baseEnvironment() const
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("DISPLAY"), display);
        return environment;
    }

    void start(QProcess &process, const QString &program, const QStringList &arguments)
    {
        process.setProcessEnvironment(baseEnvironment());
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.setStandardOutputFile(QProcess::nullDevice());
        process.start(program, arguments);
        ASSERT_TRUE(process.waitForStarted(5000)) << program.toStdString();
    }

    QString xdotool(std::initializer_list<const char *> arguments)
    {
        QProcess tool;
        tool.setProcessEnvironment(baseEnvironment());
        QStringList list;
        for (const char *argument : arguments)
            list << QLatin1String(argument);
        tool.start(QStringLiteral("xdotool"), list);
        tool.waitForFinished(5000);
        return QString::fromUtf8(tool.readAllStandardOutput()).trimmed();
    }

    // The program's mapped windows: the tray icon and, when shown, the main window.
    QList<WindowGeometry> visibleWindows()
    {
        QList<WindowGeometry> windows;
        for (const QString &id : xdotool({"search", "--onlyvisible", "--classname", "^vistrel$"}).split(QLatin1Char('\n'),
                                                                                                      Qt::SkipEmptyParts)) {
            const QByteArray idText = id.toUtf8();
            QMap<QString, int> shell;
            for (const QString &line : xdotool({"getwindowgeometry", "--shell", idText.constData()}).split(QLatin1Char('\n'))) {
                const qsizetype equals = line.indexOf(QLatin1Char('='));
                if (equals > 0)
                    shell.insert(line.left(equals), line.mid(equals + 1).toInt());
            }
            windows.append({id.toULongLong(), QRect(shell.value(QStringLiteral("X")), shell.value(QStringLiteral("Y")),
                                                    shell.value(QStringLiteral("WIDTH")), shell.value(QStringLiteral("HEIGHT")))});
        }
        return windows;
    }

    std::optional<QRect> find(bool icon)
    {
        for (const WindowGeometry &window : visibleWindows())
            if ((window.rect.width() < 100) == icon && window.rect.width() > 0)
                return window.rect;
        return std::nullopt;
    }

    void clickAt(QPoint point)
    {
        const QByteArray x = QByteArray::number(point.x()), y = QByteArray::number(point.y());
        xdotool({"mousemove", x.constData(), y.constData(), "click", "1"});
    }

    QString display;
    QTemporaryDir home;
    QProcess xserver, tray, app;
};

} // namespace

TEST_F(TraySmokeTest, ClickingTheIconShowsTheWindowBelowItAndAgainHidesIt)
{
    std::optional<QRect> icon;
    ASSERT_TRUE(QTest::qWaitFor([&] { return (icon = find(true)).has_value(); }, 15000)) << "no tray icon appeared";
    // The icon sits in trayer's panel at the top right.
    EXPECT_LT(icon->y(), 32);
    EXPECT_GT(icon->x(), 1280 - 200);
    EXPECT_FALSE(find(false).has_value()); // the main window starts hidden

    // The icon's geometry settles a moment after it is docked.
    QTest::qWait(1500);
    icon = find(true);
    ASSERT_TRUE(icon);
    clickAt(icon->center());
    std::optional<QRect> window;
    ASSERT_TRUE(QTest::qWaitFor([&] { return (window = find(false)).has_value(); }, 5000)) << "the window did not show";
    const QPoint expected = vistrel::windowOriginBelowStatusItem(*icon, window->size(), QRect(0, 0, 1280, 800));
    EXPECT_EQ(window->topLeft(), expected);
    EXPECT_EQ(window->top(), icon->top() + icon->height() + 6);
    EXPECT_EQ(window->left() + window->width(), 1280 - 8); // pushed in from the right edge

    QTest::qWait(500);
    clickAt(icon->center());
    EXPECT_TRUE(QTest::qWaitFor([&] { return !find(false).has_value(); }, 5000)) << "the window did not hide";
    EXPECT_EQ(app.state(), QProcess::Running);
}
