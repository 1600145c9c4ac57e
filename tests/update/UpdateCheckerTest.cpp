#include "app/AppDelegate.h"
#include "update/UpdateChecker.h"

#include "LoopbackHttpServer.h"
#include "SystemLogCapture.h"
#include "TestServices.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <gtest/gtest.h>

using namespace vistrel;
using namespace std::chrono_literals;

namespace {

const QByteArray kFeed120 =
    R"({"latestShortVersion":"1.2.0","latestBuild":120,"downloadURL":"https://vistrel.app/download"})";
const QByteArray kFeed121 =
    R"({"latestShortVersion":"1.2.1","latestBuild":121,"downloadURL":"https://vistrel.app/download"})";
const QString kDefaultText =
    QStringLiteral("A newer version of Vistrel is available. Download it to get the latest features and fixes.");

class UpdateCheckerTest : public ::testing::Test
{
protected:
    // Fetches once and answers the outcome; fails the test if no answer came.
    std::optional<LatestResponse> fetch()
    {
        bool answered = false;
        std::optional<LatestResponse> result;
        checker.fetchLatest(nullptr, [&](std::optional<LatestResponse> response) {
            answered = true;
            result = std::move(response);
        });
        EXPECT_TRUE(QTest::qWaitFor([&] { return answered; }, 5000));
        return result;
    }

    // One launch's check with the given own build number.
    void check(const char *build)
    {
        env.services.bundle.infoDictionary.insert(QStringLiteral("CFBundleVersion"), QString::fromLatin1(build));
        QSignalSpy finished(&checker, &UpdateChecker::checkFinished);
        checker.checkForUpdates(env.services);
        ASSERT_TRUE(finished.wait(5000));
    }

    qint64 dismissed() const { return env.defaults->integerForKey(QStringLiteral("updateCheckerDismissedBuild")); }

    test::LoopbackHttpServer server;
    test::TestServices env;
    UpdateChecker checker{server.url(), 2s};
    test::SystemLogCapture log;
};

} // namespace

TEST_F(UpdateCheckerTest, OnlyStatus200WithAValidBodyCounts)
{
    server.body = kFeed120;
    for (int status : {204, 304, 404, 500}) {
        SCOPED_TRACE(status);
        server.status = status;
        EXPECT_FALSE(fetch().has_value());
    }
    server.status = 200;
    const auto response = fetch();
    ASSERT_TRUE(response.has_value());
    EXPECT_EQ(response->latestBuild, 120);
    for (const QByteArray &bad : {QByteArray(), QByteArray("not json"), QByteArray(R"({"latestBuild":120})")}) {
        server.body = bad;
        EXPECT_FALSE(fetch().has_value());
    }
    // Every request asked for the feed itself, past any cache on the way.
    ASSERT_EQ(server.requests.size(), 8);
    for (const QByteArray &request : server.requests) {
        EXPECT_TRUE(request.startsWith("GET /updates/latest.json HTTP/1.1\r\n"));
        EXPECT_TRUE(request.toLower().contains("cache-control: no-cache")) << request.constData();
    }
}

TEST_F(UpdateCheckerTest, SilentServerTimesOutWithoutBlockingTheEventLoop)
{
    server.silent = true;
    UpdateChecker impatient(server.url(), 400ms);
    int ticks = 0;
    QTimer ticker;
    QObject::connect(&ticker, &QTimer::timeout, [&] { ++ticks; });
    ticker.start(20);

    QElapsedTimer elapsed;
    elapsed.start();
    bool answered = false;
    std::optional<LatestResponse> result = LatestResponse{};
    impatient.fetchLatest(nullptr, [&](std::optional<LatestResponse> r) {
        answered = true;
        result = r;
    });
    EXPECT_FALSE(answered); // the request is in flight, the call returned
    ASSERT_TRUE(QTest::qWaitFor([&] { return answered; }, 5000));
    EXPECT_FALSE(result.has_value());
    EXPECT_GE(elapsed.elapsed(), 350);
    EXPECT_LT(elapsed.elapsed(), 3000);
    EXPECT_EQ(server.requests.size(), 1);
    // The loop kept turning while the server said nothing.
    EXPECT_GE(ticks, 10);
}

TEST_F(UpdateCheckerTest, SameBuildShowsNothingAndLogsZeroMinimum)
{
    server.body = kFeed120;
    check("120");
    EXPECT_TRUE(env.alerts.shown.isEmpty());
    EXPECT_EQ(log.lines(), QStringList{QStringLiteral("update check: current=120 latest=120 min=0")});
}

TEST_F(UpdateCheckerTest, LaterIsRememberedUntilALargerBuildAppears)
{
    server.body = kFeed120;
    env.alerts.answers = {1}; // "Later"
    check("119");
    ASSERT_EQ(env.alerts.shown.size(), 1);
    const AlertSpec offer = env.alerts.shown.first();
    EXPECT_EQ(offer.title, QStringLiteral("Vistrel 1.2.0 is available"));
    EXPECT_EQ(offer.text, kDefaultText);
    EXPECT_EQ(offer.style, AlertStyle::Informational);
    EXPECT_EQ(offer.buttons, (QStringList{QStringLiteral("Download"), QStringLiteral("Later")}));
    EXPECT_EQ(dismissed(), 120);
    EXPECT_TRUE(env.urlOpener.opened.isEmpty());

    check("119"); // next launch, same feed
    EXPECT_EQ(env.alerts.shown.size(), 1);

    server.body = kFeed121;
    env.alerts.answers = {-1}; // closed without a button counts as "Later"
    check("119");
    ASSERT_EQ(env.alerts.shown.size(), 2);
    EXPECT_EQ(env.alerts.shown.last().title, QStringLiteral("Vistrel 1.2.1 is available"));
    EXPECT_EQ(dismissed(), 121);
}

TEST_F(UpdateCheckerTest, DownloadOpensThePageAndStoresNothing)
{
    server.body = kFeed120;
    env.alerts.answers = {0};
    check("119");
    EXPECT_EQ(env.urlOpener.opened, QList<QUrl>{QUrl(QStringLiteral("https://vistrel.app/download"))});
    EXPECT_FALSE(env.defaults->hasKey(QStringLiteral("updateCheckerDismissedBuild")));
    EXPECT_EQ(env.application.terminateCalls, 0);

    env.alerts.answers = {0};
    check("119");
    EXPECT_EQ(env.alerts.shown.size(), 2);
    EXPECT_EQ(env.urlOpener.opened.size(), 2);
}

TEST_F(UpdateCheckerTest, BelowMinimumRequiresTheUpdateAndQuitsWhateverIsPressed)
{
    server.body = R"({"latestShortVersion":"1.2.0","latestBuild":120,"minimumBuild":110,"downloadURL":"https://vistrel.app/download"})";
    env.defaults->setInteger(QStringLiteral("updateCheckerDismissedBuild"), 500);
    env.alerts.answers = {1, 0}; // "Quit", then "Download" on the next launch
    check("100");
    ASSERT_EQ(env.alerts.shown.size(), 1);
    const AlertSpec required = env.alerts.shown.first();
    EXPECT_EQ(required.title, QStringLiteral("Update required"));
    EXPECT_EQ(required.text,
              QStringLiteral("This version of Vistrel is no longer supported. Please install Vistrel 1.2.0 to continue."));
    EXPECT_EQ(required.style, AlertStyle::Critical);
    EXPECT_EQ(required.buttons, (QStringList{QStringLiteral("Download"), QStringLiteral("Quit")}));
    EXPECT_EQ(env.application.terminateCalls, 1);
    EXPECT_TRUE(env.urlOpener.opened.isEmpty());
    EXPECT_EQ(log.lines().last(), QStringLiteral("update check: current=100 latest=120 min=110"));

    check("100");
    EXPECT_EQ(env.application.terminateCalls, 2);
    EXPECT_EQ(env.urlOpener.opened.size(), 1);
    EXPECT_EQ(dismissed(), 500);

    // An unusable download address does nothing, and the app still quits.
    server.body = R"({"latestShortVersion":"1.2.0","latestBuild":120,"minimumBuild":110,"downloadURL":"http://[bad"})";
    env.alerts.answers = {0};
    check("100");
    EXPECT_EQ(env.urlOpener.opened.size(), 1);
    EXPECT_EQ(env.application.terminateCalls, 3);
}

TEST_F(UpdateCheckerTest, AtTheMinimumTheOptionalRuleApplies)
{
    server.body = R"({"latestShortVersion":"1.2.0","latestBuild":120,"minimumBuild":110,"downloadURL":"https://x"})";
    env.alerts.answers = {1};
    check("110");
    ASSERT_EQ(env.alerts.shown.size(), 1);
    EXPECT_EQ(env.alerts.shown.first().title, QStringLiteral("Vistrel 1.2.0 is available"));
    EXPECT_EQ(env.application.terminateCalls, 0);

    // An unreadable own build counts as 0, so any minimum forces the update.
    check("1.1");
    EXPECT_EQ(env.alerts.shown.last().title, QStringLiteral("Update required"));
}

TEST_F(UpdateCheckerTest, ReleaseNotesReplaceTheDefaultText)
{
    server.body = R"({"latestShortVersion":"1.2.0","latestBuild":120,"downloadURL":"https://x",
                      "releaseNotes":"Stutter is smoother.","releaseNotesURL":"https://vistrel.app/notes"})";
    env.alerts.answers = {0, 0};
    check("119");
    ASSERT_EQ(env.alerts.shown.size(), 1);
    EXPECT_EQ(env.alerts.shown.first().text, QStringLiteral("Stutter is smoother."));

    server.body = R"({"latestShortVersion":"1.2.0","latestBuild":120,"downloadURL":"https://x","releaseNotes":""})";
    check("119");
    EXPECT_EQ(env.alerts.shown.last().text, QString());
}

TEST_F(UpdateCheckerTest, FailuresAreOneLogLineAndNoAlert)
{
    server.status = 304;
    server.body = kFeed120;
    check("1");
    server.status = 200;
    server.body = R"({"latestShortVersion":"1.2.0","latestBuild":120.5,"downloadURL":"https://x"})";
    check("1");
    EXPECT_TRUE(env.alerts.shown.isEmpty());
    EXPECT_EQ(log.lines(), QStringList(2, QStringLiteral("update check: fetch failed or no response")));
}

// Launch runs exactly one check on the main-window path, against the feed named by
// VISTREL_UPDATE_URL, and none while onboarding is shown.
TEST_F(UpdateCheckerTest, LaunchChecksOnceOnTheMainWindowPathOnly)
{
    qputenv("VISTREL_UPDATE_URL", server.url().toString().toUtf8());
    server.body = kFeed120;
    QTemporaryDir emptyShare; // no interface file: the fallback window stands in
    env.services.bundle.shareDir = emptyShare.path();

    {
        AppDelegate onboarding(env.services);
        onboarding.applicationDidFinishLaunching();
        QTest::qWait(300);
        EXPECT_TRUE(server.requests.isEmpty());
    }
    env.defaults->setBool(QStringLiteral("onboardingComplete"), true);
    env.defaults->setBool(QStringLiteral("extensionInstalled"), true);
    env.cameraAuthorization.status = 3;
    AppDelegate delegate(env.services);
    QSignalSpy finished(&UpdateChecker::shared(), &UpdateChecker::checkFinished);
    delegate.applicationDidFinishLaunching();
    EXPECT_TRUE(server.requests.isEmpty() && finished.isEmpty()); // launch did not wait
    ASSERT_TRUE(finished.wait(5000));
    EXPECT_EQ(server.requests.size(), 1);
    EXPECT_EQ(UpdateChecker::shared().latestURL, server.url());
    qDeleteAll(QApplication::topLevelWidgets());
}
