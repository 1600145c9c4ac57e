#include "app/SingleInstance.h"

#include "core/LocalSocketPath.h"
#include "core/SystemLog.h"

#include <QDir>
#include <QLocalServer>
#include <QLocalSocket>

#include <cerrno>
#include <sys/stat.h>

namespace vistrel {

namespace {
const QByteArray kShowRequest = QByteArrayLiteral("show\n");
}

QString SingleInstance::defaultKey()
{
    // The runtime folder is per user, not per home folder; the home's hash keeps two
    // sessions with different homes apart.
    const QString folder = privateRuntimeFolder();
    if (folder.isEmpty()) {
        systemLog(QStringLiteral("single instance disabled: a second launch will start another Vistrel"));
        return {};
    }
    return folder + QStringLiteral("/app.vistrel.Vistrel-%1").arg(qHash(QDir::homePath()), 0, 16);
}

SingleInstance::SingleInstance(QString key, QObject *parent) : QObject(parent), m_key(std::move(key)) {}

SingleInstance::~SingleInstance() = default;

bool SingleInstance::notifyRunningInstance(int timeoutMs)
{
    if (m_key.isEmpty())
        return false;
    struct stat st = {};
    if (::lstat(QFile::encodeName(m_key).constData(), &st) != 0 && errno == ENOENT)
        return false;
    QString why;
    if (!isOwnSocket(m_key, &why)) {
        systemLog(QStringLiteral("single instance: ignoring ") + m_key + QStringLiteral(", not a socket of this user (")
                  + why + QStringLiteral(")"));
        return false;
    }
    QLocalSocket socket;
    socket.connectToServer(m_key);
    if (!socket.waitForConnected(timeoutMs))
        return false;
    socket.write(kShowRequest);
    socket.waitForBytesWritten(timeoutMs);
    socket.disconnectFromServer();
    return true;
}

bool SingleInstance::listen()
{
    if (m_server)
        return true;
    if (m_key.isEmpty())
        return false;
    QString why;
    if (!claimSocketPath(m_key, &why)) {
        systemLog(QStringLiteral("single instance: cannot listen on ") + m_key + QStringLiteral(" (") + why
                  + QStringLiteral(")"));
        return false;
    }
    // No access options: the folder already keeps others out.
    auto *server = new QLocalServer(this);
    if (!server->listen(m_key)) {
        systemLog(QStringLiteral("single instance: cannot listen on ") + m_key + QStringLiteral(" (")
                  + server->errorString() + QStringLiteral(")"));
        delete server;
        return false;
    }
    connect(server, &QLocalServer::newConnection, this, [this, server] {
        while (QLocalSocket *client = server->nextPendingConnection()) {
            connect(client, &QLocalSocket::readyRead, this, [this, client] {
                if (client->readAll().contains(kShowRequest))
                    Q_EMIT activationRequested();
            });
            connect(client, &QLocalSocket::disconnected, client, &QObject::deleteLater);
        }
    });
    m_server = server;
    return true;
}

void SingleInstance::release()
{
    delete m_server;
    m_server = nullptr;
}

bool SingleInstance::isListening() const
{
    return m_server && m_server->isListening();
}

} // namespace vistrel
