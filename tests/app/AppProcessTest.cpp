// The real program, started as a child process with its own HOME.
#include "TestHome.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <gtest/gtest.h>

#include <csignal>

namespace {

const QString kBinary = QStringLiteral(VISTREL_BINARY_DIR "/bin/vistrel");

const QByteArray kFinishedOnboarding = "[General]\nonboardingComplete=true\nextensionInstalled=true\n";

// Starts `executable` with the given settings file; by default on the main-window path,
// as a user who finished onboarding.
class AppProcess
{
public:
    explicit AppProcess(const QString &executable, const QByteArray &settings = kFinishedOnboarding,
                        const QList<std::pair<QString, QString>> &environment = {})
    {
        vistrel::test::writeFile(settingsPath(), settings);
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("HOME"), home.path());
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.filePath(QStringLiteral(".config")));
        for (const auto &[name, value] : environment)
            env.insert(name, value);
        process.setProcessEnvironment(env);
        process.setStandardErrorFile(home.filePath(QStringLiteral("errors")));
        process.start(executable);
    }
    ~AppProcess()
    {
        process.kill();
        process.waitForFinished(5000);
    }
    // Waits up to ten seconds for `text` in the trace log ("vistrel-trace.log") or standard error ("errors").
    bool waitFor(const char *file, const QString &text)
    {
        return QTest::qWaitFor([&] { return read(file).contains(text); }, 10000);
    }
    QString read(const char *file) const
    {
        return QString::fromUtf8(vistrel::test::readFile(home.filePath(QLatin1String(file))));
    }
    QString trace() const { return read("vistrel-trace.log"); }
    QString settingsPath() const { return home.filePath(QStringLiteral(".config/Vistrel/Vistrel.conf")); }
    bool launched() { return waitFor("vistrel-trace.log", QStringLiteral("didFinishLaunching EXIT")); }

    QTemporaryDir home{QStringLiteral("/tmp/vsh-XXXXXX")}; // short: the instance's socket path lies inside
    QProcess process;
};

} // namespace

TEST(AppProcess, LaunchesHiddenOnTheMainWindowPathAndASecondLaunchDefersToIt)
{
    AppProcess first(kBinary);
    ASSERT_TRUE(first.launched()) << first.trace().toStdString();
    const QString trace = first.trace();
    EXPECT_TRUE(trace.contains(
        QStringLiteral("] didFinishLaunching ENTER pid=%1 exec=%2\n").arg(first.process.processId()).arg(kBinary)));
    EXPECT_TRUE(trace.contains(QStringLiteral("] autoLoadedMain=Optional(QMainWindow(0x")));
    EXPECT_TRUE(trace.contains(QStringLiteral(" wc=Optional(vistrel::MainWindowController(0x")));
    EXPECT_TRUE(first.waitFor("errors", QStringLiteral("[Vistrel] main window prepared (hidden) — frame=(")))
        << first.read("errors").toStdString();

    QProcess second;
    second.setProcessEnvironment(first.process.processEnvironment());
    second.start(kBinary);
    ASSERT_TRUE(second.waitForFinished(10000));
    EXPECT_TRUE(second.exitStatus() == QProcess::NormalExit && second.exitCode() == 0);
    EXPECT_TRUE(first.waitFor("errors", QStringLiteral("[Vistrel] reopen requested by a second launch")));
    // The second process never launched: the trace holds the first launch only.
    EXPECT_EQ(first.trace().count(QStringLiteral("didFinishLaunching ENTER")), 1);
    EXPECT_EQ(first.process.state(), QProcess::Running);

    // Another home folder is another user's session: its launch is not deferred.
    AppProcess elsewhere(kBinary);
    EXPECT_TRUE(elsewhere.launched());
}

TEST(AppProcess, WithoutItsInterfaceFileShowsTheFallbackWindow)
{
    // The same program installed into a prefix whose share/vistrel lacks Main.ui.
    QTemporaryDir prefix;
    ASSERT_TRUE(QDir(prefix.path()).mkpath(QStringLiteral("bin")));
    ASSERT_TRUE(QDir(prefix.path()).mkpath(QStringLiteral("share/vistrel")));
    const QString copy = prefix.filePath(QStringLiteral("bin/vistrel"));
    ASSERT_TRUE(QFile::copy(kBinary, copy));

    AppProcess app(copy);
    ASSERT_TRUE(app.launched());
    EXPECT_TRUE(app.waitFor("errors", QStringLiteral("fallback window shown")));
}

// Logout, `systemctl --user stop`, `kill` and Ctrl+C end the app as its Exit buttons do. A
// damaged settings file reads as absent (onboarding), whose end then sets that one line only.
TEST(AppProcess, TerminationSignalsEndTheAppThroughItsNormalTermination)
{
    const QByteArray damaged =
        QByteArray("# mine\n[General]\nonboardingComplete=maybe\nextensionInstalled=@Variant(\\0\\0\\0\\x7f)\n")
        + QByteArray("blob=\x00\xff\xfe\n", 9) + "[Broken\nx=1\n[Other]\nhuge=" + QByteArray(1 << 20, 'z')
        + "\ntruncated=\"open";
    const struct
    {
        int signal;
        const char *name;
        const QByteArray &settings;
    } cases[] = {{SIGTERM, "SIGTERM", damaged},
                 {SIGINT, "SIGINT", damaged},
                 {SIGHUP, "SIGHUP", damaged},
                 {SIGTERM, "SIGTERM", kFinishedOnboarding}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const bool onboarding = &c.settings == &damaged;
        AppProcess app(kBinary, c.settings);
        ASSERT_TRUE(app.launched()) << app.read("errors").toStdString();
        ASSERT_TRUE(app.trace().contains(onboarding ? QStringLiteral("state — onboardingComplete=false ")
                                                    : QStringLiteral("taking MAIN WINDOW path")));
        ASSERT_EQ(::kill(static_cast<pid_t>(app.process.processId()), c.signal), 0);
        ASSERT_TRUE(app.process.waitForFinished(10000));
        EXPECT_TRUE(app.process.exitStatus() == QProcess::NormalExit && app.process.exitCode() == 0);
        EXPECT_TRUE(app.trace().endsWith(QStringLiteral("] terminating on %1\n").arg(QLatin1String(c.name))))
            << app.trace().toStdString();
        EXPECT_TRUE(vistrel::test::readFile(app.settingsPath())
                    == QByteArray(c.settings).replace("onboardingComplete=maybe\n", "onboardingComplete=false\n"))
            << "settings not reset, or rewritten";
    }
}

// A runtime folder that others can enter is refused, and the app starts all the same.
TEST(AppProcess, AnOpenRuntimeFolderIsRefusedAndTheAppStillStartsAlone)
{
    QTemporaryDir runtime(QStringLiteral("/tmp/vst-XXXXXX"));
    ASSERT_TRUE(QFile::setPermissions(runtime.path(), QFileDevice::Permissions(0x7777)));
    AppProcess app(kBinary, kFinishedOnboarding, {{QStringLiteral("XDG_RUNTIME_DIR"), runtime.path()}});
    ASSERT_TRUE(app.launched());
    EXPECT_TRUE(app.read("errors").contains(
        QStringLiteral("[Vistrel] XDG_RUNTIME_DIR %1 is not private to this user (").arg(runtime.path())))
        << app.read("errors").toStdString();
    EXPECT_TRUE(QDir(runtime.path()).isEmpty()) << "nothing is put where others can reach it";
}
