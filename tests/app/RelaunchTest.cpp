#include "app/AppDelegate.h"
#include "app/LinuxPlatform.h"
#include "app/TraceLog.h"

#include "TestHome.h"
#include "TestServices.h"

#include <QTest>
#include <gtest/gtest.h>

using namespace vistrel;

namespace {

class RelaunchTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        QFile::remove(traceLogPath());
        env.application.onTerminate = [this] { delegate.applicationWillTerminate(); };
        env.defaults->setBool(QStringLiteral("onboardingComplete"), true); // what Finish stores first
        delegate.onboardingInProgress = true;
    }
    bool onboardingComplete() { return env.defaults->boolForKey(QStringLiteral("onboardingComplete")); }
    QString trace() { return QString::fromUtf8(test::readFile(traceLogPath())); }

    test::TestServices env;
    AppDelegate delegate{env.services};
};

} // namespace

TEST_F(RelaunchTest, CompletingOnboardingTracesThenStartsTheExecutableAloneAndQuitsKeepingTheFlag)
{
    delegate.onboardingCompleted();
    EXPECT_FALSE(delegate.onboardingInProgress);
    EXPECT_TRUE(trace().endsWith(QStringLiteral("] onboarding completed — restarting app\n")));
    ASSERT_EQ(env.launcher.programs, QStringList{QStringLiteral("/opt/vistrel/bin/vistrel")});
    EXPECT_TRUE(env.launcher.argumentLists.first().isEmpty());
    EXPECT_EQ(env.application.terminateCalls, 1);
    EXPECT_TRUE(onboardingComplete()) << "the will-terminate handler must not undo a finished onboarding";
}

TEST_F(RelaunchTest, AFailedRelaunchKeepsTheAppRunningAndQuittingDuringOnboardingForgetsCompletion)
{
    env.launcher.succeed = false;
    env.launcher.failure = QStringLiteral("Process failed to start: No such file or directory");
    delegate.restartApp();
    EXPECT_EQ(env.application.terminateCalls, 0);
    EXPECT_EQ(trace().count(QStringLiteral("restartApp failed: ")), 1);
    EXPECT_TRUE(trace().endsWith(QStringLiteral("] restartApp failed: Process failed to start: No such file or directory\n")));
    EXPECT_TRUE(delegate.onboardingInProgress) << "state is left as it was";

    // Quitting while onboarding is shown stores "not complete"; on the main path it keeps the flag.
    env.application.terminate();
    EXPECT_FALSE(onboardingComplete());
    EXPECT_TRUE(env.defaults->hasKey(QStringLiteral("onboardingComplete")));
    env.defaults->setBool(QStringLiteral("onboardingComplete"), true);
    delegate.onboardingInProgress = false;
    env.application.terminate();
    EXPECT_TRUE(onboardingComplete());
}

TEST(ProcessLauncher, StartsARealDetachedChildAndReportsAFailure)
{
    ProcessLauncher launcher;
    const QString marker = QDir::homePath() + QStringLiteral("/launched");
    QString error;
    ASSERT_TRUE(launcher.launchDetached(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), QStringLiteral("touch '%1'").arg(marker)}, &error));
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(marker), 5000);

    EXPECT_FALSE(launcher.launchDetached(QStringLiteral("/nonexistent/vistrel"), {}, &error));
    EXPECT_FALSE(error.isEmpty());
}
