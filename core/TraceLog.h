#pragma once
#include <QDateTime>
#include <QRectF>
#include <QString>

class QObject;

namespace vistrel {

// Appends "[<UTC time> +0000] <message>\n" to ~/vistrel-trace.log and echoes
// "[Vistrel] <message>" to the system log. Opens and closes the file on every call;
// never truncates, never reports a failure to the caller.
void traceLog(const QString &message);

// "~/vistrel-trace.log" expanded against the current HOME.
QString traceLogPath();

// "2026-11-16 00:06:02 +0000": whole seconds, always UTC.
QString traceTimestamp(const QDateTime &when);

// "Optional(QMainWindow(0x55…))" or "nil".
QString describeOptional(const QObject *object);
// "(x, y, width, height)", each with a fractional part.
QString describeFrame(const QRectF &frame);

} // namespace vistrel
