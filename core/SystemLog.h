#pragma once
#include <QString>

namespace vistrel {

// The system log: "[Vistrel] " + message to standard error and to syslog (ident
// "Vistrel"). The message is data, never a format string.
void systemLog(const QString &message);

// One line of console output: UTF-8 on standard output, newline-terminated, flushed.
// Safe to call from any thread; lines never interleave.
void consoleLine(const QString &line);

} // namespace vistrel
