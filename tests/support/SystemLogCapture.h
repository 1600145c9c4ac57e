#pragma once
#include <QFile>
#include <QString>
#include <QStringList>
#include <QTemporaryFile>
#include <cstdio>
#include <unistd.h>

namespace vistrel::test {

// Redirects standard error, where the system log's lines are echoed, to a temporary
// file for its lifetime, so a test can read the lines the code logged.
class SystemLogCapture
{
public:
    SystemLogCapture()
    {
        m_file.open();
        std::fflush(stderr);
        m_savedStderr = ::dup(STDERR_FILENO);
        ::dup2(m_file.handle(), STDERR_FILENO);
    }
    ~SystemLogCapture()
    {
        std::fflush(stderr);
        ::dup2(m_savedStderr, STDERR_FILENO);
        ::close(m_savedStderr);
    }
    SystemLogCapture(const SystemLogCapture &) = delete;
    SystemLogCapture &operator=(const SystemLogCapture &) = delete;

    // The lines that came from the system log, without their "[Vistrel] " prefix.
    QStringList lines()
    {
        std::fflush(stderr);
        QFile reader(m_file.fileName());
        reader.open(QIODevice::ReadOnly);
        QStringList logged;
        for (const QString &line : QString::fromUtf8(reader.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts))
            if (line.startsWith(QLatin1String("[Vistrel] ")))
                logged << line.mid(10);
        return logged;
    }

private:
    QTemporaryFile m_file;
    int m_savedStderr = -1;
};

} // namespace vistrel::test
