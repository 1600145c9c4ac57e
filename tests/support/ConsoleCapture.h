#pragma once
#include <QFile>
#include <QString>
#include <QStringList>
#include <QTemporaryFile>
#include <cstdio>
#include <unistd.h>

namespace vistrel::test {

// Redirects the process's standard output to a temporary file for its lifetime, so a
// test can read the console lines the code wrote. Restores the real output on exit.
class ConsoleCapture
{
public:
    ConsoleCapture()
    {
        m_file.open();
        std::fflush(stdout);
        m_savedStdout = ::dup(STDOUT_FILENO);
        ::dup2(m_file.handle(), STDOUT_FILENO);
    }
    ~ConsoleCapture()
    {
        std::fflush(stdout);
        ::dup2(m_savedStdout, STDOUT_FILENO);
        ::close(m_savedStdout);
    }
    ConsoleCapture(const ConsoleCapture &) = delete;
    ConsoleCapture &operator=(const ConsoleCapture &) = delete;

    QStringList lines()
    {
        std::fflush(stdout);
        QFile reader(m_file.fileName());
        reader.open(QIODevice::ReadOnly);
        return QString::fromUtf8(reader.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    }

private:
    QTemporaryFile m_file;
    int m_savedStdout = -1;
};

} // namespace vistrel::test
