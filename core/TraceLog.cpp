#include "core/TraceLog.h"

#include "core/SystemLog.h"

#include <QDir>
#include <QMetaObject>
#include <QObject>

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
    const QString line = QLatin1Char('[') + traceTimestamp(QDateTime::currentDateTimeUtc()) + QStringLiteral("] ")
        + message + QLatin1Char('\n');
    const QByteArray bytes = line.toUtf8();
    const QByteArray path = QFile::encodeName(traceLogPath());

    struct stat st = {};
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

namespace {

QString coordinate(qreal value)
{
    // 500 prints as "500.0", 0.5 as "0.5".
    QString text = QString::number(value, 'g', 15);
    if (!text.contains(QLatin1Char('.')) && !text.contains(QLatin1Char('e')))
        text += QStringLiteral(".0");
    return text;
}

} // namespace

QString describeOptional(const QObject *object)
{
    if (!object)
        return QStringLiteral("nil");
    return QStringLiteral("Optional(%1(0x%2))")
        .arg(QString::fromLatin1(object->metaObject()->className()))
        .arg(reinterpret_cast<quintptr>(object), 0, 16);
}

QString describeFrame(const QRectF &frame)
{
    return QStringLiteral("(%1, %2, %3, %4)")
        .arg(coordinate(frame.x()), coordinate(frame.y()), coordinate(frame.width()), coordinate(frame.height()));
}

} // namespace vistrel
