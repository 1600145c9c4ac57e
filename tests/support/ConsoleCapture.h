#pragma once
#include "TestHome.h"

#include <QString>
#include <QStringList>
#include <QTemporaryFile>
#include <cstdio>
#include <unistd.h>

namespace vistrel::test {

// Redirects one of the process's standard streams to a temporary file for its
// lifetime, so a test can read what the code wrote there. Restores the stream on exit.
class StreamCapture
{
public:
    explicit StreamCapture(std::FILE *stream) : m_stream(stream), m_fd(::fileno(stream))
    {
        m_file.open();
        std::fflush(m_stream);
        m_saved = ::dup(m_fd);
        ::dup2(m_file.handle(), m_fd);
    }
    ~StreamCapture()
    {
        std::fflush(m_stream);
        ::dup2(m_saved, m_fd);
        ::close(m_saved);
    }
    StreamCapture(const StreamCapture &) = delete;
    StreamCapture &operator=(const StreamCapture &) = delete;

    // Every non-empty line written so far.
    QStringList lines()
    {
        std::fflush(m_stream);
        return QString::fromUtf8(readFile(m_file.fileName())).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    }

private:
    std::FILE *m_stream;
    int m_fd;
    int m_saved = -1;
    QTemporaryFile m_file;
};

// The console: standard output, where the French status lines go.
class ConsoleCapture : public StreamCapture
{
public:
    ConsoleCapture() : StreamCapture(stdout) {}
};

} // namespace vistrel::test
