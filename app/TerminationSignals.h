#pragma once
#include <QObject>
#include <QString>
#include <functional>

class QSocketNotifier;

namespace vistrel {

// Turns SIGTERM, SIGINT and SIGHUP (logout, `systemctl --user stop`, `kill`, Ctrl+C in
// a terminal) into a call on the main thread, so that they end the app through its
// normal termination instead of killing it where it stands. The signal handler only
// writes the signal's number into a socket pair, which is all it may safely do; a
// notifier on the main thread reads it and calls `handler`.
//
// Main thread only; at most one instance at a time. Destroying it restores the default
// handling of the three signals.
class TerminationSignals final : public QObject
{
    Q_OBJECT
public:
    explicit TerminationSignals(std::function<void(int signal)> handler, QObject *parent = nullptr);
    ~TerminationSignals() override;

    // "SIGTERM", "SIGINT", "SIGHUP", or "signal <n>".
    static QString name(int signal);

private:
    void readSignals();

    std::function<void(int)> m_handler;
    int m_fds[2] = {-1, -1};
    QSocketNotifier *m_notifier = nullptr;
};

} // namespace vistrel
