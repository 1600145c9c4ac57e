#include "app/AppDelegate.h"
#include "app/LinuxPlatform.h"
#include "app/SingleInstance.h"
#include "core/TraceLog.h"

#include "TestHome.h"
#include "TestServices.h"

#include <QTemporaryDir>
#include <QTest>
#include <gtest/gtest.h>

using namespace vistrel;

// Finishing onboarding starts the executable alone and quits keeping the flag. The new
// process must be able to claim the single-instance name (or it would defer to the one
// quitting and leave). A failed start keeps the app running with its claim back, and
// quitting while onboarding is still shown then stores "not complete".
TEST(RelaunchTest, CompletingOnboardingRestartsTheAppOrStaysUpWhenTheStartFails)
{
    QFile::remove(traceLogPath());
    test::TestServices env;
    AppDelegate delegate(env.services);
    env.application.onTerminate = [&] { delegate.applicationWillTerminate(); };
    const auto trace = [] { return QString::fromUtf8(test::readFile(traceLogPath())); };
    const QString complete = QStringLiteral("onboardingComplete");
    QTemporaryDir runtime;
    const QString key = runtime.filePath(QStringLiteral("instance"));
    SingleInstance claim(key);
    ASSERT_TRUE(claim.listen());
    delegate.setSingleInstance(&claim);
    QList<bool> newcomerClaimed;
    env.launcher.onLaunch = [&] { newcomerClaimed << SingleInstance(key).listen(); };

    env.launcher.succeed = false;
    env.launcher.failure = QStringLiteral("Process failed to start: No such file or directory");
    delegate.applicationDidFinishLaunching(); // nothing set up yet: onboarding is shown
    ASSERT_TRUE(delegate.isOnboardingInProgress());
    env.defaults->setBool(complete, true); // what Finish stores first
    delegate.restartApp();
    EXPECT_EQ(env.application.terminateCalls, 0);
    EXPECT_TRUE(
        trace().endsWith(QStringLiteral("] restartApp failed: Process failed to start: No such file or directory\n")));
    EXPECT_TRUE(claim.isListening()) << "a second launch must still find the app that stayed up";
    env.application.terminate();
    EXPECT_FALSE(env.defaults->boolForKey(complete));

    env.launcher.succeed = true;
    env.defaults->setBool(complete, true);
    delegate.onboardingCompleted();
    EXPECT_TRUE(trace().endsWith(QStringLiteral("] onboarding completed — restarting app\n")));
    EXPECT_EQ(env.launcher.programs.last(), QStringLiteral("/opt/vistrel/bin/vistrel"));
    EXPECT_TRUE(env.launcher.argumentLists.last().isEmpty());
    EXPECT_EQ(env.application.terminateCalls, 2);
    EXPECT_EQ(newcomerClaimed, (QList<bool>{true, true}));
    EXPECT_TRUE(env.defaults->boolForKey(complete)) << "the will-terminate handler must not undo a finished onboarding";
}

TEST(ProcessLauncher, StartsARealDetachedChildAndReportsAFailure)
{
    ProcessLauncher launcher;
    const QString marker = QDir::homePath() + QStringLiteral("/launched");
    QString error;
    ASSERT_TRUE(launcher.launchDetached(QStringLiteral("/bin/sh"),
                                        {QStringLiteral("-c"), QStringLiteral("touch '%1'").arg(marker)}, &error));
    EXPECT_TRUE(QTest::qWaitFor([&] { return QFile::exists(marker); }, 5000));

    EXPECT_FALSE(launcher.launchDetached(QStringLiteral("/nonexistent/vistrel"), {}, &error));
    EXPECT_FALSE(error.isEmpty());
}
