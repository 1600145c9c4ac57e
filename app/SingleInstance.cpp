#include "app/SingleInstance.h"

#include <QDir>
#include <QLocalServer>
#include <QLocalSocket>
#include <unistd.h>

namespace vistrel {

namespace {
const QByteArray kShowRequest = QByteArrayLiteral("show\n");
}

QString SingleInstance::defaultKey()
{
    return QStringLiteral("app.vistrel.Vistrel-%1-%2").arg(::getuid()).arg(qHash(QDir::homePath()), 0, 16);
}

SingleInstance::SingleInstance(QString key, QObject *parent) : QObject(parent), m_key(std::move(key)) {}

SingleInstance::~SingleInstance() = default;

bool SingleInstance::notifyRunningInstance(int timeoutMs)
{
    QLocalSocket socket;
    socket.setSocketOptions(QLocalSocket::AbstractNamespaceOption);
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
    auto *server = new QLocalServer(this);
    server->setSocketOptions(QLocalServer::AbstractNamespaceOption);
    if (!server->listen(m_key)) {
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
