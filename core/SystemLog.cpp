#include "core/SystemLog.h"

#include <cstdio>
#include <mutex>
#include <syslog.h>

namespace vistrel {

void systemLog(const QString &message)
{
    static std::once_flag opened;
    std::call_once(opened, [] { ::openlog("Vistrel", LOG_PID, LOG_USER); });

    const QByteArray line = (QStringLiteral("[Vistrel] ") + message).toUtf8();
    ::syslog(LOG_NOTICE, "%s", line.constData());
    const QByteArray withNewline = line + '\n';
    std::fwrite(withNewline.constData(), 1, static_cast<size_t>(withNewline.size()), stderr);
    std::fflush(stderr);
}

void consoleLine(const QString &line)
{
    const QByteArray bytes = line.toUtf8() + '\n';
    // stdio locks the stream per call, so one fwrite is one uninterrupted line.
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stdout);
    std::fflush(stdout);
}

} // namespace vistrel
