// The real program, started as a child process with its own HOME.
#include "TestHome.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <gtest/gtest.h>

namespace {

class AppProcess
{
public:
    AppProcess(const QString &executable, bool mainWindowPath)
    {
        QDir(home.path()).mkpath(QStringLiteral(".config/Vistrel"));
        if (mainWindowPath) {
            QFile conf(home.filePath(QStringLiteral(".config/Vistrel/Vistrel.conf")));
            conf.open(QIODevice::WriteOnly);
            conf.write("[General]\nonboardingComplete=true\nextensionInstalled=true\n");
        }
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("HOME"), home.path());
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.filePath(QStringLiteral(".config")));
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        env.insert(QStringLiteral("VISTREL_UPDATE_URL"), QStringLiteral("http://127.0.0.1:9/updates/latest.json"));
        process.setProcessEnvironment(env);
        process.setProgram(executable);
        process.start();
    }
    ~AppProcess()
    {
        process.kill();
        process.waitForFinished(5000);
    }
    // Standard error read so far, waiting up to five seconds for `text` to appear.
    QString waitForErrors(const QString &text)
    {
        for (int i = 0; i < 100 && !errors.contains(text); ++i) {
            process.waitForReadyRead(50);
            errors += QString::fromUtf8(process.readAllStandardError());
        }
        return errors;
    }
    QString trace() const { return QString::fromUtf8(vistrel::test::readFile(home.filePath(QStringLiteral("vistrel-trace.log")))); }
    bool waitForTrace(const QString &text)
    {
        for (int i = 0; i < 200; ++i) {
            if (trace().contains(text))
                return true;
            QTest::qWait(50);
        }
        return false;
    }

    QTemporaryDir home;
    QProcess process;
    QString errors;
};

const QString kBinary = QStringLiteral(VISTREL_BINARY_DIR "/bin/vistrel");

} // namespace

TEST(AppProcess, LaunchesOnTheMainWindowPathWithItsWindowHidden)
{
    AppProcess app(kBinary, true);
    ASSERT_TRUE(app.waitForTrace(QStringLiteral("didFinishLaunching EXIT"))) << app.trace().toStdString();
    const QStringList lines = app.trace().split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 5) << app.trace().toStdString();
    EXPECT_TRUE(lines[0].endsWith(QStringLiteral("] didFinishLaunching ENTER pid=%1 exec=%2").arg(app.process.processId()).arg(kBinary)));
    EXPECT_TRUE(lines[1].contains(QStringLiteral("] didFinishLaunching state — onboardingComplete=true cameraAuth=")));
    EXPECT_TRUE(lines[1].endsWith(QStringLiteral(" needsOnboarding=false")));
    EXPECT_TRUE(lines[2].contains(QStringLiteral("] autoLoadedMain=Optional(QMainWindow(0x")));
    EXPECT_TRUE(lines[2].contains(QStringLiteral(" wc=Optional(vistrel::MainWindowController(0x")));
    EXPECT_TRUE(lines[3].endsWith(QStringLiteral("] taking MAIN WINDOW path")));
    EXPECT_TRUE(lines[4].endsWith(QStringLiteral("] didFinishLaunching EXIT")));
    EXPECT_EQ(app.process.state(), QProcess::Running);
    const QString errors = app.waitForErrors(QStringLiteral("main window prepared"));
    EXPECT_TRUE(errors.contains(QStringLiteral("[Vistrel] main window prepared (hidden) — frame=("))) << errors.toStdString();
}

TEST(AppProcess, WithoutItsInterfaceFileShowsTheFallbackWindow)
{
    // The same program installed into a prefix whose share/vistrel lacks Main.ui.
    QTemporaryDir prefix;
    ASSERT_TRUE(QDir(prefix.path()).mkpath(QStringLiteral("bin")));
    ASSERT_TRUE(QDir(prefix.path()).mkpath(QStringLiteral("share/vistrel")));
    const QString copy = prefix.filePath(QStringLiteral("bin/vistrel"));
    ASSERT_TRUE(QFile::copy(kBinary, copy));

    AppProcess app(copy, true);
    ASSERT_TRUE(app.waitForTrace(QStringLiteral("didFinishLaunching EXIT")));
    EXPECT_TRUE(app.trace().contains(QStringLiteral("] autoLoadedMain=nil wc=nil\n")));
    const QString errors = app.waitForErrors(QStringLiteral("fallback window shown"));
    EXPECT_TRUE(errors.contains(QStringLiteral("[Vistrel] main storyboard fallback instantiate -> nil"))) << errors.toStdString();
    EXPECT_TRUE(errors.contains(QStringLiteral("[Vistrel] programmatic fallback window shown — frame=(")));
    EXPECT_TRUE(errors.contains(QStringLiteral(", 500.0, 360.0)")));
}

TEST(AppProcess, ASecondLaunchShowsTheRunningAppAndLeaves)
{
    AppProcess first(kBinary, true);
    ASSERT_TRUE(first.waitForTrace(QStringLiteral("didFinishLaunching EXIT")));

    QProcess second;
    second.setProcessEnvironment(first.process.processEnvironment());
    second.start(kBinary);
    ASSERT_TRUE(second.waitForFinished(10000));
    EXPECT_EQ(second.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(second.exitCode(), 0);

    EXPECT_TRUE(first.waitForErrors(QStringLiteral("reopen requested")).contains(
        QStringLiteral("[Vistrel] reopen requested by a second launch")));
    // The second process never launched: the trace holds the first launch only.
    EXPECT_EQ(first.trace().count(QStringLiteral("didFinishLaunching ENTER")), 1);
    EXPECT_EQ(first.process.state(), QProcess::Running);

    // Another home folder is another user's session: its launch is not deferred.
    AppProcess elsewhere(kBinary, true);
    EXPECT_TRUE(elsewhere.waitForTrace(QStringLiteral("didFinishLaunching EXIT")));
}
