#pragma once
#include "ConsoleCapture.h"

namespace vistrel::test {

// Captures standard error, where the system log's lines are echoed, so a test can read
// the lines the code logged.
class SystemLogCapture
{
public:
    // The lines that came from the system log, without their "[Vistrel] " prefix.
    QStringList lines()
    {
        QStringList logged;
        for (const QString &line : m_stderr.lines())
            if (line.startsWith(QLatin1String("[Vistrel] ")))
                logged << line.mid(10);
        return logged;
    }

private:
    StreamCapture m_stderr{stderr};
};

} // namespace vistrel::test
