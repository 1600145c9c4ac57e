// The real program, started as a child process with its own HOME.
#include "AppProcess.h"

#include <QDir>
#include <gtest/gtest.h>

#include <csignal>

using vistrel::test::AppProcess;
using vistrel::test::kBinary;
using vistrel::test::kFinishedOnboarding;

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
