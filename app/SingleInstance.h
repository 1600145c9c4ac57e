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
    // The name for this user and home folder, in the abstract socket namespace (no
    // file is left behind by a crash).
    static QString defaultKey();

    explicit SingleInstance(QString key, QObject *parent = nullptr);
    ~SingleInstance() override;

    // Tells an instance already running to show itself; answers whether there was one.
    bool notifyRunningInstance(int timeoutMs = 500);
    // Claims the name; answers false when another process holds it.
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
