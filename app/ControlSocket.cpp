#include "app/ControlSocket.h"

#include "core/LocalSocketPath.h"
#include "core/SystemLog.h"
#include "ui/ViewController.h"

#include <QComboBox>
#include <QFileInfo>
#include <QLocalServer>
#include <QLocalSocket>
#include <QPushButton>
#include <QTimer>

namespace vistrel {

void ControlSocket::Chooser::chooseMovie(QWidget *parent, std::function<void(std::optional<QString>)> done)
{
    if (!pending) {
        m_panel.chooseMovie(parent, std::move(done));
        return;
    }
    // Answered from the event loop, as a non-blocking panel would.
    QTimer::singleShot(0, [file = *std::exchange(pending, std::nullopt), done = std::move(done)] { done(file); });
}

ControlSocket::ControlSocket(FileDialogs &panel, ControllerLookup lookup, QObject *parent)
    : QObject(parent), m_chooser(panel), m_lookup(std::move(lookup))
{}

ControlSocket::~ControlSocket() = default;

std::unique_ptr<ControlSocket> ControlSocket::fromEnvironment(FileDialogs &panel, ControllerLookup lookup)
{
    const QString path = qEnvironmentVariable(kEnvironmentVariable);
    if (path.isEmpty())
        return nullptr;
    auto channel = std::make_unique<ControlSocket>(panel, std::move(lookup));
    QString error;
    if (!channel->listen(path, &error)) {
        systemLog(QStringLiteral("control socket ") + path + QStringLiteral(" not available: ") + error);
        return nullptr;
    }
    systemLog(QStringLiteral("control socket listening on ") + path);
    return channel;
}

bool ControlSocket::listen(const QString &path, QString *error)
{
    // A socket file of ours left by a run that crashed would block the name; anything
    // else at the path (a file, a folder, a live or another user's socket) is not ours
    // to remove.
    if (!claimSocketPath(path, error))
        return false;
    auto server = std::make_unique<QLocalServer>();
    server->setSocketOptions(QLocalServer::UserAccessOption);
    if (!server->listen(path)) {
        if (error)
            *error = server->errorString();
        return false;
    }
    connect(server.get(), &QLocalServer::newConnection, this, &ControlSocket::acceptConnections);
    m_server = std::move(server);
    return true;
}

void ControlSocket::acceptConnections()
{
    while (QLocalSocket *client = m_server->nextPendingConnection()) {
        connect(client, &QLocalSocket::disconnected, client, &QObject::deleteLater);
        connect(client, &QLocalSocket::readyRead, this, [this, client] { readCommands(client); });
    }
}

void ControlSocket::readCommands(QLocalSocket *client)
{
    while (client->canReadLine()) {
        const QByteArray line = client->readLine(kMaxLineBytes + 1);
        if (!line.endsWith('\n')) {
            client->write("error line too long\n");
            client->disconnectFromServer();
            return;
        }
        client->write(execute(QString::fromUtf8(line)).toUtf8() + '\n');
    }
    if (client->bytesAvailable() > kMaxLineBytes) {
        client->write("error line too long\n");
        client->disconnectFromServer();
    }
}

QString ControlSocket::execute(const QString &text)
{
    const QString line = text.trimmed();
    const qsizetype space = line.indexOf(u' ');
    const QString verb = line.left(space);
    const QString argument = space < 0 ? QString() : line.mid(space + 1).trimmed();
    if (verb.isEmpty())
        return QStringLiteral("error empty command");

    ViewController *controller = m_lookup ? m_lookup() : nullptr;
    if (!controller)
        return QStringLiteral("error no main window");

    if (verb == u"freeze")
        return pressButton(*controller, "freezeButton");
    if (verb == u"stutter")
        return pressButton(*controller, "shutterButton");
    if (verb == u"stop")
        return pressButton(*controller, "stopVideoBtn");
    if (verb == u"open")
        return openMovie(*controller, argument);
    if (verb == u"cameras") {
        QStringList names;
        if (const auto *chooser = controller->findChild<QComboBox *>(QStringLiteral("popUpButton")))
            for (int i = 0; i < chooser->count(); ++i)
                names << chooser->itemText(i);
        return names.isEmpty() ? QStringLiteral("ok") : QStringLiteral("ok ") + names.join(QStringLiteral(" | "));
    }
    if (verb == u"select")
        return selectCamera(*controller, argument);
    return QStringLiteral("error unknown command: ") + verb;
}

QString ControlSocket::pressButton(ViewController &controller, const char *name)
{
    auto *button = controller.findChild<QPushButton *>(QLatin1String(name));
    if (!button)
        return QStringLiteral("error no button ") + QLatin1String(name);
    if (!button->isEnabled())
        return QStringLiteral("error ") + button->text() + QStringLiteral(" is disabled");
    button->click();
    return QStringLiteral("ok ") + button->text();
}

QString ControlSocket::openMovie(ViewController &controller, const QString &path)
{
    if (path.isEmpty())
        return QStringLiteral("error open needs a file path");
    const QFileInfo file(path);
    if (!file.isFile() || !file.isReadable())
        return QStringLiteral("error no readable file: ") + path;
    m_chooser.pending = file.absoluteFilePath();
    const QString answer = pressButton(controller, "openVideoButton");
    if (!answer.startsWith(u"ok"))
        m_chooser.pending.reset();
    return answer;
}

QString ControlSocket::selectCamera(ViewController &controller, const QString &argument)
{
    bool number = false;
    const int index = argument.toInt(&number);
    auto *chooser = controller.findChild<QComboBox *>(QStringLiteral("popUpButton"));
    if (!number || !chooser || index < 0 || index >= chooser->count())
        return QStringLiteral("error no camera at index ") + argument;
    chooser->setCurrentIndex(index);
    Q_EMIT chooser->activated(index);
    return QStringLiteral("ok ") + chooser->itemText(index);
}

} // namespace vistrel
