#include "core/TraceLog.h"

#include "TestHome.h"

#include <QRegularExpression>
#include <gtest/gtest.h>

#include <ctime>

using namespace vistrel;

// One UTC-stamped line appended per call, whatever the time zone. Messages are written
// and echoed as they stand: no printf-style expansion, no escaping.
TEST(TraceLogTest, AppendsOneUtcStampedLinePerCallAndStillEchoesWhenTheFileCannotBeWritten)
{
    QFile::remove(traceLogPath());
    const auto content = [] { return test::readFile(traceLogPath()); };
    const QByteArray oldTz = qgetenv("TZ");
    qputenv("TZ", "Pacific/Kiritimati"); // UTC+14: any local-time leak shows as a date change
    tzset();
    const qint64 before = QDateTime::currentSecsSinceEpoch() - 1;
    traceLog(QStringLiteral("first"));
    const qint64 after = QDateTime::currentSecsSinceEpoch() + 1;
    qputenv("TZ", oldTz);
    tzset();

    const QByteArray afterFirst = content();
    const auto match =
        QRegularExpression(QStringLiteral(R"(^\[(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}) \+0000\] first\n$)"))
            .match(QString::fromUtf8(afterFirst));
    ASSERT_TRUE(match.hasMatch()) << afterFirst.constData();
    QDateTime stamped = QDateTime::fromString(match.captured(1), QStringLiteral("yyyy-MM-dd HH:mm:ss"));
    stamped.setTimeSpec(Qt::UTC);
    EXPECT_GE(stamped.toSecsSinceEpoch(), before);
    EXPECT_LE(stamped.toSecsSinceEpoch(), after);

    ::testing::internal::CaptureStderr();
    traceLog(QStringLiteral("two\nlines"));
    traceLog(QStringLiteral("state — é format %s %d %n %%"));
    std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_TRUE(content().startsWith(afterFirst)) << "the first line must never be rewritten";
    EXPECT_TRUE(content().contains("] two\nlines\n["));
    EXPECT_TRUE(content().endsWith(QStringLiteral("] state — é format %s %d %n %%\n").toUtf8()));
    EXPECT_NE(err.find("[Vistrel] state — é format %s %d %n %%\n"), std::string::npos) << err;

    // A folder where the file should be cannot be opened for writing, even by root:
    // the folder is left alone and the echo still goes out.
    QFile::remove(traceLogPath());
    ASSERT_TRUE(QDir().mkpath(traceLogPath()));
    ::testing::internal::CaptureStderr();
    traceLog(QStringLiteral("lost line"));
    err = ::testing::internal::GetCapturedStderr();
    EXPECT_TRUE(QFileInfo(traceLogPath()).isDir() && QDir(traceLogPath()).isEmpty());
    EXPECT_NE(err.find("[Vistrel] lost line"), std::string::npos);
    QDir(traceLogPath()).removeRecursively();
}
