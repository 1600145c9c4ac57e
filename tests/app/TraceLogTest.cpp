#include "app/TraceLog.h"

#include "TestHome.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTimeZone>
#include <gtest/gtest.h>

#include <cstdlib>
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
    static QList<QByteArray> lines() { return test::readFile(traceLogPath()).split('\n'); }
};

const QRegularExpression kLine(QStringLiteral(R"(^\[(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}) \+0000\] (.*)$)"),
                               QRegularExpression::DotMatchesEverythingOption);

} // namespace

TEST_F(TraceLogTest, CreatesTheFileThenAppendsOneLinePerCall)
{
    EXPECT_EQ(traceLogPath(), QDir::homePath() + "/vistrel-trace.log");
    traceLog(QStringLiteral("first"));
    const QByteArray afterFirst = test::readFile(traceLogPath());
    ASSERT_TRUE(afterFirst.endsWith("] first\n"));
    EXPECT_EQ(afterFirst.count('\n'), 1);

    traceLog(QStringLiteral("didFinishLaunching state — é"));
    const QByteArray afterSecond = test::readFile(traceLogPath());
    EXPECT_TRUE(afterSecond.startsWith(afterFirst)) << "the first line must never be rewritten";
    EXPECT_TRUE(afterSecond.endsWith(QStringLiteral("] didFinishLaunching state — é\n").toUtf8()));
    EXPECT_FALSE(afterSecond.contains('\r'));
    EXPECT_FALSE(afterSecond.startsWith("\xEF\xBB\xBF"));
}

TEST_F(TraceLogTest, LineFormatIsUtcWholeSecondsWhateverTheTimeZone)
{
    const QByteArray oldTz = qgetenv("TZ");
    qputenv("TZ", "Pacific/Kiritimati"); // UTC+14: any local-time leak shows as a date change
    tzset();
    const QDateTime before = QDateTime::currentDateTimeUtc().addSecs(-1);
    traceLog(QStringLiteral("stamp"));
    const QDateTime after = QDateTime::currentDateTimeUtc().addSecs(1);
    qputenv("TZ", oldTz);
    tzset();

    const QString line = QString::fromUtf8(lines().first());
    const auto match = kLine.match(line);
    ASSERT_TRUE(match.hasMatch()) << line.toStdString();
    EXPECT_EQ(match.captured(2), QStringLiteral("stamp"));
    QDateTime stamped = QDateTime::fromString(match.captured(1), QStringLiteral("yyyy-MM-dd HH:mm:ss"));
    stamped.setTimeSpec(Qt::UTC);
    EXPECT_GE(stamped.toSecsSinceEpoch(), before.toSecsSinceEpoch());
    EXPECT_LE(stamped.toSecsSinceEpoch(), after.toSecsSinceEpoch());
}

TEST_F(TraceLogTest, MessagesAreWrittenAsTheyStand)
{
    traceLog(QStringLiteral("two\nlines"));
    traceLog(QStringLiteral("format %s %d %n %%"));
    const QByteArray content = test::readFile(traceLogPath());
    EXPECT_TRUE(content.contains("] two\nlines\n["));
    EXPECT_TRUE(content.endsWith("] format %s %d %n %%\n"));
}

TEST_F(TraceLogTest, EchoesToTheSystemLogWithThePrefix)
{
    ::testing::internal::CaptureStderr();
    traceLog(QStringLiteral("echo %s"));
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("[Vistrel] echo %s\n"), std::string::npos) << err;
}

TEST_F(TraceLogTest, NeverTruncatesAnExistingFile)
{
    QFile existing(traceLogPath());
    ASSERT_TRUE(existing.open(QIODevice::WriteOnly));
    const QByteArray history(1 << 20, 'x');
    existing.write(history);
    existing.close();

    traceLog(QStringLiteral("after a megabyte"));
    const QByteArray content = test::readFile(traceLogPath());
    EXPECT_EQ(content.size(), history.size() + QByteArray("[2026-01-01 00:00:00 +0000] after a megabyte\n").size());
    EXPECT_TRUE(content.startsWith(history));
}

TEST_F(TraceLogTest, AnUnwritablePathIsLeftAloneAndTheEchoStillGoesOut)
{
    // A folder where the file should be cannot be opened for writing, even by root.
    ASSERT_TRUE(QDir().mkpath(traceLogPath()));
    ::testing::internal::CaptureStderr();
    traceLog(QStringLiteral("lost line"));
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_TRUE(QFileInfo(traceLogPath()).isDir());
    EXPECT_TRUE(QDir(traceLogPath()).isEmpty());
    EXPECT_NE(err.find("[Vistrel] lost line"), std::string::npos);
}
