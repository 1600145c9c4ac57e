#include "update/UpdateChecker.h"
#include "app/AppDelegate.h"
#include "app/LinuxPlatform.h"

#include "LoopbackHttpServer.h"
#include "SystemLogCapture.h"
#include "TestServices.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <gtest/gtest.h>

using namespace vistrel;
using namespace std::chrono_literals;

inline void PrintTo(const QString &text, std::ostream *out)
{
    *out << '"' << text.toStdString() << '"';
}

namespace {

// A feed offering build 120 ("1.2.0"), with `extra` JSON members appended.
QByteArray feed(const char *extra = "", const char *build = "120", const char *version = "1.2.0")
{
    return QByteArray(R"({"latestShortVersion":")") + version + R"(","latestBuild":)" + build
        + R"(,"downloadURL":"https://vistrel.app/download")" + extra + "}";
}

// A 200 with no length whose body is blanks, handed over as fast as the client takes them
// up to 128 MiB; `sent` counts what left the server (a piece goes when the last has gone).
std::function<void(QTcpSocket *)> stream(qint64 *sent)
{
    return [=](QTcpSocket *socket) {
        socket->write("HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n\r\n");
        const auto more = [=] {
            if (socket->state() != QAbstractSocket::ConnectedState || socket->bytesToWrite() > 0 || *sent >= 128 << 20)
                return;
            socket->write(QByteArray(64 * 1024, ' '));
            *sent += 64 * 1024;
        };
        QObject::connect(socket, &QTcpSocket::bytesWritten, socket, more);
        more();
    };
}

// A 200 that announces a body and then sends one byte of it every 20 ms, forever.
void trickle(QTcpSocket *socket)
{
    socket->write("HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 100000\r\n\r\n");
    auto *drip = new QTimer(socket);
    QObject::connect(drip, &QTimer::timeout, socket, [socket] { socket->write(" "); });
    QObject::connect(socket, &QTcpSocket::disconnected, drip, &QTimer::stop);
    drip->start(20);
}

class UpdateCheckerTest : public ::testing::Test
{
protected:
    // One launch's check with the given own build number; it must return before the answer.
    void check(const char *build, UpdateChecker *by = nullptr)
    {
        by = by ? by : &checker;
        env.services.bundle.infoDictionary.insert(QStringLiteral("CFBundleVersion"), QString::fromLatin1(build));
        QSignalSpy finished(by, &UpdateChecker::checkFinished);
        by->checkForUpdates(env.services);
        EXPECT_TRUE(finished.isEmpty()) << "the check blocked its caller";
        ASSERT_TRUE(finished.wait(5000));
    }
    qint64 dismissed() const { return env.defaults->integerForKey(QStringLiteral("updateCheckerDismissedBuild")); }

    test::LoopbackHttpServer server;
    test::TestServices env;
    UpdateChecker checker{server.url(), 2s};
    test::SystemLogCapture log;
};

const QString kFetchFailed = QStringLiteral("update check: fetch failed or no response");

} // namespace

TEST_F(UpdateCheckerTest, OnlyStatus200WithAWholeRecordCountsAndEachFailureIsOneLogLine)
{
    const struct
    {
        int status;
        QByteArray body;
    } failures[] = {
        {204, feed()},
        {304, feed()},
        {404, feed()},
        {200, "not json"},
        {200, R"({"latestBuild":120})"},
        {200, feed("", "120.5")},
    };
    for (const auto &failure : failures) {
        server.status = failure.status;
        server.body = failure.body;
        check("1");
    }
    EXPECT_EQ(log.lines(), QStringList(6, kFetchFailed));
    // Each check asked for the feed itself, past any cache on the way.
    ASSERT_EQ(server.requests.size(), 6);
    EXPECT_TRUE(server.requests.last().toLower().contains("cache-control: no-cache"))
        << server.requests.last().constData();
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
    check("1", &impatient);
    EXPECT_GE(elapsed.elapsed(), 350);
    EXPECT_GE(ticks, 10) << "the loop stopped turning while the server said nothing";
    EXPECT_EQ(log.lines(), QStringList{kFetchFailed});
}

TEST_F(UpdateCheckerTest, OptionalUpdateDownloadIsForgottenLaterRememberedUntilALargerBuild)
{
    server.body = feed();
    check("120");
    EXPECT_TRUE(env.alerts.shown.isEmpty());
    EXPECT_EQ(log.lines(), QStringList{QStringLiteral("update check: current=120 latest=120 min=0")});

    env.alerts.answers = {0, 1}; // "Download", then "Later" on the next launch
    check("119");
    ASSERT_EQ(env.alerts.shown.size(), 1);
    const AlertSpec offer = env.alerts.shown.first();
    EXPECT_EQ(offer.title, QStringLiteral("Vistrel 1.2.0 is available"));
    EXPECT_EQ(
        offer.text,
        QStringLiteral("A newer version of Vistrel is available. Download it to get the latest features and fixes."));
    EXPECT_EQ(offer.buttons, (QStringList{QStringLiteral("Download"), QStringLiteral("Later")}));
    EXPECT_EQ(env.urlOpener.opened, QList<QUrl>{QUrl(QStringLiteral("https://vistrel.app/download"))});
    EXPECT_FALSE(env.defaults->hasKey(QStringLiteral("updateCheckerDismissedBuild")));

    check("119"); // nothing remembered: offered again
    ASSERT_EQ(env.alerts.shown.size(), 2);
    EXPECT_EQ(dismissed(), 120);
    check("119");
    EXPECT_EQ(env.alerts.shown.size(), 2);

    // Release notes replace the default text.
    server.body =
        feed(R"(,"releaseNotes":"Stutter is smoother.","releaseNotesURL":"https://vistrel.app/notes")", "121");
    env.alerts.answers = {-1}; // closed without a button counts as "Later"
    check("119");
    ASSERT_EQ(env.alerts.shown.size(), 3);
    EXPECT_EQ(env.alerts.shown.last().text, QStringLiteral("Stutter is smoother."));
    EXPECT_EQ(dismissed(), 121);
}

TEST_F(UpdateCheckerTest, BelowTheMinimumTheUpdateIsRequiredAndTheAppQuitsWhateverIsPressed)
{
    server.body = feed(R"(,"minimumBuild":110)");
    env.alerts.answers = {1, 1, 0}; // "Later" at the minimum, then "Quit", then "Download"
    check("110");                   // at the minimum the optional rule applies
    EXPECT_EQ(env.application.terminateCalls, 0);
    ASSERT_EQ(dismissed(), 120);

    check("100"); // a dismissed build is required all the same
    ASSERT_EQ(env.alerts.shown.size(), 2);
    const AlertSpec required = env.alerts.shown.last();
    EXPECT_EQ(required.title, QStringLiteral("Update required"));
    EXPECT_EQ(
        required.text,
        QStringLiteral("This version of Vistrel is no longer supported. Please install Vistrel 1.2.0 to continue."));
    EXPECT_EQ(required.style, AlertStyle::Critical);
    EXPECT_EQ(required.buttons, (QStringList{QStringLiteral("Download"), QStringLiteral("Quit")}));
    EXPECT_EQ(env.application.terminateCalls, 1);
    EXPECT_TRUE(env.urlOpener.opened.isEmpty());
    EXPECT_EQ(log.lines().last(), QStringLiteral("update check: current=100 latest=120 min=110"));

    check("1.1"); // an unreadable own build counts as 0
    EXPECT_EQ(env.application.terminateCalls, 2);
    EXPECT_EQ(env.urlOpener.opened.size(), 1);

    // An unusable download address does nothing, and the app still quits.
    server.body = R"({"latestShortVersion":"1.2.0","latestBuild":120,"minimumBuild":110,"downloadURL":"http://[bad"})";
    check("100");
    EXPECT_EQ(env.urlOpener.opened.size(), 1);
    EXPECT_EQ(env.application.terminateCalls, 3);
}

// Launch runs exactly one check on the main-window path, against the feed named by
// VISTREL_UPDATE_URL, and none while onboarding is shown.
TEST_F(UpdateCheckerTest, LaunchChecksOnceOnTheMainWindowPathOnly)
{
    qputenv("VISTREL_UPDATE_URL", server.url().toString().toUtf8());
    server.body = feed();
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
    qDeleteAll(QApplication::topLevelWidgets());
}

// What a broken or hostile network may answer, to a build any accepted feed would offer an
// update to: each row ends as an unreachable feed does, within the deadline.
TEST_F(UpdateCheckerTest, BadFeedsFailQuietlyWithinTheDeadline)
{
    qint64 streamed = 0;
    QByteArray overCap = feed();
    overCap.append(QByteArray(UpdateChecker::kMaxBodySize + 1 - overCap.size(), ' '));
    const struct
    {
        const char *what;
        QByteArray body;
        std::function<void(QTcpSocket *)> respond = {};
    } rows[] = {
        {"empty body", ""},
        {"not JSON", "<html><body>Service Unavailable</body></html>"},
        {"truncated JSON", feed(R"(,"minimumBuild":110)").left(60)},
        {"build as a string", feed("", R"("120")")},
        {"build past 64 bits", feed("", "9223372036854775808")},
        {"minimum as a string", feed(R"(,"minimumBuild":"110")")},
        {"a valid feed one byte over the cap", overCap},
        {"an unannounced body far over the cap", {}, stream(&streamed)},
        {"a body cut short by the server",
         {},
         [](QTcpSocket *socket) {
             socket->write("HTTP/1.1 200 OK\r\nContent-Length: 400\r\nConnection: close\r\n\r\n" + feed());
             socket->disconnectFromHost();
         }},
        {"a redirect loop",
         {},
         [this](QTcpSocket *socket) {
             socket->write("HTTP/1.1 302 Found\r\nLocation: " + server.url().toEncoded()
                           + "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
             socket->disconnectFromHost();
         }},
        {"a server that never answers", {}, [](QTcpSocket *) {}},
        {"a server that trickles a byte at a time", {}, trickle},
        {"file: download",
         feed(R"(,"minimumBuild":110)").replace("https://vistrel.app/download", "file:///etc/passwd")},
        {"javascript: download", feed().replace("https://vistrel.app/download", "javascript:alert(1)")},
    };
    UpdateChecker quick(server.url(), 1s);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        server.body = row.body;
        server.respond = row.respond;
        const qsizetype logged = log.lines().size();
        check("1", &quick);
        EXPECT_EQ(log.lines().mid(logged), QStringList{kFetchFailed});
    }
    // Abandoned at the cap, not read to the end (the socket buffers on the way hold a few MiB).
    EXPECT_LT(streamed, 32 << 20);

    // A feed padded to exactly the cap is still a feed.
    server.respond = {};
    server.body = overCap.chopped(1);
    check("1", &quick);
    EXPECT_EQ(log.lines().last(), QStringLiteral("update check: current=1 latest=120 min=0"));
}

// Release notes and the version come from the feed: the real alert shows them as plain text.
TEST_F(UpdateCheckerTest, FeedTextIsShownAsPlainTextInTheAlert)
{
    MessageBoxAlertPresenter boxes;
    env.services.alerts = &boxes;
    server.body = feed(R"(,"releaseNotes":"<a href=\"file:///etc/passwd\">Read <b>this</b></a>")", "120", "<i>1.2</i>");
    QMap<QString, Qt::TextFormat> shown;
    QTimer watcher;
    QObject::connect(&watcher, &QTimer::timeout, [&] {
        if (auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget())) {
            watcher.stop();
            for (const QLabel *label : box->findChildren<QLabel *>())
                shown.insert(label->text(), label->textFormat());
            box->buttons().constFirst()->click();
        }
    });
    watcher.start(10);
    check("119");
    const QString notes = QStringLiteral(R"(<a href="file:///etc/passwd">Read <b>this</b></a>)");
    const QString title = QStringLiteral("Vistrel <i>1.2</i> is available");
    ASSERT_TRUE(shown.contains(notes) && shown.contains(title)) << shown.keys().join(QLatin1Char('|')).toStdString();
    EXPECT_EQ(shown.value(notes), Qt::PlainText);
    EXPECT_EQ(shown.value(title), Qt::PlainText);
}

// The shared checker reads VISTREL_UPDATE_URL once per process, so each address gets a
// child process: an unusable one is said once, and both checks then fail.
TEST(UpdateCheckerAddress, AnUnusableAddressIsLoggedOnceAndEachCheckFails)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const struct
    {
        const char *address;
        const char *logged;
    } rows[] = {
        {"ftp://127.0.0.1/updates/latest.json",
         R"( "ftp://127.0.0.1/updates/latest.json": only http and https addresses are fetched)"},
        {"http://[bad", R"(: .*source was "http://\[bad"[^\n]*)"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.address);
        EXPECT_EXIT(
            {
                qputenv("VISTREL_UPDATE_URL", row.address);
                test::TestServices env;
                QSignalSpy finished(&UpdateChecker::shared(), &UpdateChecker::checkFinished);
                UpdateChecker::shared().checkForUpdates(env.services);
                UpdateChecker::shared().checkForUpdates(env.services);
                std::_Exit(QTest::qWaitFor([&] { return finished.size() == 2; }, 5000) ? 0 : 1);
            },
            testing::ExitedWithCode(0),
            std::string("\\[Vistrel\\] update check: cannot use the update address") + row.logged
                + "\n\\[Vistrel\\] update check: fetch failed or no response"
                  "\n\\[Vistrel\\] update check: fetch failed or no response\n$");
    }
}
