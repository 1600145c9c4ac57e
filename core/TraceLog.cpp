#include "core/TraceLog.h"

#include "core/SystemLog.h"

#include <QDir>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vistrel {
namespace {

void writeAll(int fd, const QByteArray &bytes)
{
    const char *data = bytes.constData();
    qsizetype left = bytes.size();
    while (left > 0) {
        const ssize_t n = ::write(fd, data, static_cast<size_t>(left));
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        data += n;
        left -= n;
    }
}

} // namespace

QString traceLogPath()
{
    return QDir::homePath() + QStringLiteral("/vistrel-trace.log");
}

QString traceTimestamp(const QDateTime &when)
{
    return when.toUTC().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss")) + QStringLiteral(" +0000");
}

void traceLog(const QString &message)
{
    const QString line = QLatin1Char('[') + traceTimestamp(QDateTime::currentDateTimeUtc())
                         + QStringLiteral("] ") + message + QLatin1Char('\n');
    const QByteArray bytes = line.toUtf8();
    const QByteArray path = QFile::encodeName(traceLogPath());

    struct stat st {};
    if (::stat(path.constData(), &st) == 0) {
        // Existing file: append, never create or truncate here.
        const int fd = ::open(path.constData(), O_WRONLY | O_APPEND | O_CLOEXEC);
        if (fd >= 0) {
            writeAll(fd, bytes);
            ::close(fd);
        }
    } else {
        const int fd = ::open(path.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        if (fd >= 0) {
            writeAll(fd, bytes);
            ::close(fd);
        }
    }
    systemLog(message);
}

} // namespace vistrel
