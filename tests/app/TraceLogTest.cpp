#include "app/TraceLog.h"

#include "TestHome.h"

#include <QRegularExpression>
#include <gtest/gtest.h>

#include <ctime>

using namespace vistrel;

namespace {

class TraceLogTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        QFile::remove(traceLogPath());
        QDir(traceLogPath()).removeRecursively();
    }
    static QByteArray content() { return test::readFile(traceLogPath()); }
};

} // namespace

TEST_F(TraceLogTest, AppendsOneUtcStampedLinePerCallWhateverTheTimeZone)
{
    EXPECT_EQ(traceLogPath(), QDir::homePath() + "/vistrel-trace.log");
    const QByteArray oldTz = qgetenv("TZ");
    qputenv("TZ", "Pacific/Kiritimati"); // UTC+14: any local-time leak shows as a date change
    tzset();
    const qint64 before = QDateTime::currentSecsSinceEpoch() - 1;
    traceLog(QStringLiteral("first"));
    const qint64 after = QDateTime::currentSecsSinceEpoch() + 1;
    qputenv("TZ", oldTz);
    tzset();

    const QByteArray afterFirst = content();
    const auto match = QRegularExpression(QStringLiteral(R"(^\[(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}) \+0000\] first\n$)"))
                           .match(QString::fromUtf8(afterFirst));
    ASSERT_TRUE(match.hasMatch()) << afterFirst.constData();
    QDateTime stamped = QDateTime::fromString(match.captured(1), QStringLiteral("yyyy-MM-dd HH:mm:ss"));
    stamped.setTimeSpec(Qt::UTC);
    EXPECT_GE(stamped.toSecsSinceEpoch(), before);
    EXPECT_LE(stamped.toSecsSinceEpoch(), after);

    traceLog(QStringLiteral("didFinishLaunching state — é"));
    EXPECT_TRUE(content().startsWith(afterFirst)) << "the first line must never be rewritten";
    EXPECT_TRUE(content().endsWith(QStringLiteral("] didFinishLaunching state — é\n").toUtf8()));
}

TEST_F(TraceLogTest, MessagesAreWrittenAndEchoedAsTheyStand)
{
    ::testing::internal::CaptureStderr();
    traceLog(QStringLiteral("two\nlines"));
    traceLog(QStringLiteral("format %s %d %n %%"));
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_TRUE(content().contains("] two\nlines\n["));
    EXPECT_TRUE(content().endsWith("] format %s %d %n %%\n"));
    EXPECT_NE(err.find("[Vistrel] format %s %d %n %%\n"), std::string::npos) << err;
}

TEST_F(TraceLogTest, AnUnwritablePathIsLeftAloneAndTheEchoStillGoesOut)
{
    // A folder where the file should be cannot be opened for writing, even by root.
    ASSERT_TRUE(QDir().mkpath(traceLogPath()));
    ::testing::internal::CaptureStderr();
    traceLog(QStringLiteral("lost line"));
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_TRUE(QFileInfo(traceLogPath()).isDir() && QDir(traceLogPath()).isEmpty());
    EXPECT_NE(err.find("[Vistrel] lost line"), std::string::npos);
}
