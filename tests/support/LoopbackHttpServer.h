#pragma once
#include <QByteArray>
#include <QHostAddress>
#include <QList>
#include <QTcpServer>
#include <QTcpSocket>
#include <QUrl>
#include <functional>

namespace vistrel::test {

// A small HTTP/1.1 server on 127.0.0.1 that answers every request with the current
// scripted status and body, or, when `silent` is set, reads the request and never
// answers, or, when `respond` is set, hands the connection to it to answer as it
// likes. Keeps the raw requests it received.
class LoopbackHttpServer : public QObject
{
public:
    int status = 200;
    QByteArray body;
    bool silent = false;
    std::function<void(QTcpSocket *)> respond;
    QList<QByteArray> requests;

    LoopbackHttpServer()
    {
        m_server.listen(QHostAddress::LocalHost, 0);
        QObject::connect(&m_server, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *socket = m_server.nextPendingConnection())
                serve(socket);
        });
    }

    QUrl url(const QString &path = QStringLiteral("/updates/latest.json")) const
    {
        return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(m_server.serverPort()).arg(path));
    }

private:
    static QByteArray reason(int code)
    {
        switch (code) {
        case 200: return "OK";
        case 204: return "No Content";
        case 304: return "Not Modified";
        case 404: return "Not Found";
        case 500: return "Internal Server Error";
        default: return "Status";
        }
    }

    void serve(QTcpSocket *socket)
    {
        socket->setParent(this);
        auto received = std::make_shared<QByteArray>();
        QObject::connect(socket, &QTcpSocket::readyRead, this, [this, socket, received] {
            received->append(socket->readAll());
            if (!received->contains("\r\n\r\n"))
                return;
            requests << *received;
            received->clear();
            if (silent)
                return;
            if (respond) {
                respond(socket);
                return;
            }
            // 204 and 304 carry no body by definition.
            const bool bodyless = status == 204 || status == 304;
            QByteArray answer = "HTTP/1.1 " + QByteArray::number(status) + ' ' + reason(status) + "\r\n";
            if (!bodyless)
                answer +=
                    "Content-Type: application/json\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\n";
            answer += "Connection: close\r\n\r\n";
            if (!bodyless)
                answer += body;
            socket->write(answer);
            socket->disconnectFromHost();
        });
    }

    QTcpServer m_server;
};

} // namespace vistrel::test
