#pragma once
#include <QObject>
#include <QString>

class QLocalServer;

namespace vistrel {

// One running Vistrel per user and home folder. A second launch asks the running one
// to show itself and leaves; the running one hears it as activationRequested().
// Before relaunching itself the app releases its claim, so the new process does not
// defer to the one that is quitting.
class SingleInstance : public QObject
{
    Q_OBJECT
public:
    // The socket path for this user and home folder, in the user's private runtime
    // folder (see privateRuntimeFolder), where no other user can take the name first or
    // connect to it. Empty when there is no such folder: each launch then runs alone.
    static QString defaultKey();

    // `key` is the socket's path; an empty key claims nothing and finds nobody.
    explicit SingleInstance(QString key, QObject *parent = nullptr);
    ~SingleInstance() override;

    // Tells an instance already running to show itself; answers whether there was one.
    // Only a socket file of this user is trusted; anything else is logged and ignored.
    bool notifyRunningInstance(int timeoutMs = 500);
    // Claims the name, replacing a socket file left by a crash; answers false (with a
    // line on the system log) when another process holds it or the path is not ours.
    bool listen();
    void release();
    bool isListening() const;

Q_SIGNALS:
    void activationRequested();

private:
    const QString m_key;
    QLocalServer *m_server = nullptr;
};

} // namespace vistrel
