#include "app/TerminationSignals.h"

#include "core/SystemLog.h"

#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

namespace vistrel {
namespace {

constexpr int kSignals[] = {SIGTERM, SIGINT, SIGHUP};

// The write end for the handler; set before the handlers are installed, cleared after
// they are removed.
volatile sig_atomic_t g_writeFd = -1;

void onSignal(int signal)
{
    const int savedErrno = errno;
    const unsigned char number = static_cast<unsigned char>(signal);
    // Non-blocking: should the pair ever be full, the signals already queued will end
    // the app anyway.
    [[maybe_unused]] const ssize_t written = ::write(g_writeFd, &number, 1);
    errno = savedErrno;
}

} // namespace

TerminationSignals::TerminationSignals(std::function<void(int)> handler, QObject *parent)
    : QObject(parent), m_handler(std::move(handler))
{
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, m_fds) != 0) {
        systemLog(QStringLiteral("termination signals not handled: ") + QString::fromLocal8Bit(std::strerror(errno)));
        return;
    }
    m_notifier = new QSocketNotifier(m_fds[1], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &TerminationSignals::readSignals);
    g_writeFd = m_fds[0];

    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int signal : kSignals)
        ::sigaction(signal, &action, nullptr);
}

TerminationSignals::~TerminationSignals()
{
    if (m_fds[0] < 0)
        return;
    for (int signal : kSignals)
        ::signal(signal, SIG_DFL);
    g_writeFd = -1;
    delete m_notifier;
    ::close(m_fds[0]);
    ::close(m_fds[1]);
}

QString TerminationSignals::name(int signal)
{
    switch (signal) {
    case SIGTERM: return QStringLiteral("SIGTERM");
    case SIGINT: return QStringLiteral("SIGINT");
    case SIGHUP: return QStringLiteral("SIGHUP");
    default: return QStringLiteral("signal ") + QString::number(signal);
    }
}

void TerminationSignals::readSignals()
{
    unsigned char numbers[16];
    const ssize_t n = ::read(m_fds[1], numbers, sizeof numbers);
    for (ssize_t i = 0; i < n; ++i)
        if (m_handler)
            m_handler(numbers[i]);
}

} // namespace vistrel
