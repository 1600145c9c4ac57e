#pragma once
#include "core/Platform.h"

#include <QObject>
#include <QString>
#include <functional>
#include <memory>
#include <optional>

class QLocalServer;
class QLocalSocket;

namespace vistrel {

class ViewController;

// An opt-in local control channel for scripted runs of the real program (the lab
// drives Vistrel in a virtual machine through it). It is off unless the environment
// variable VISTREL_CONTROL_SOCKET names a socket path; only the user who runs the
// program can connect.
//
// One command per line, one answer line each: "ok[ <detail>]" or "error <why>".
//   freeze | stutter | stop    press the Freeze, Stutter or Stop Movie button
//   open <path>                press Open Movie… and pick <path> in the file chooser
//   cameras                    the camera chooser's entries, separated by " | "
//   select <index>             pick the chooser's entry at <index>
// Every command goes through the window's own controls, so the program does exactly
// what it does when a user clicks.
class ControlSocket final : public QObject
{
    Q_OBJECT
public:
    using ControllerLookup = std::function<ViewController *()>;

    static constexpr const char *kEnvironmentVariable = "VISTREL_CONTROL_SOCKET";
    static constexpr int kMaxLineBytes = 4096;

    // `panel` is the real file chooser: answers to "open" stand in for it, every other
    // request goes to it. `lookup` answers the controller of the main window (the one
    // the status item shows), or nothing while there is none.
    ControlSocket(FileDialogs &panel, ControllerLookup lookup, QObject *parent = nullptr);
    ~ControlSocket() override;

    // A listening channel when VISTREL_CONTROL_SOCKET is set, nothing otherwise (or,
    // with a line on the system log, when the socket cannot be created).
    static std::unique_ptr<ControlSocket> fromEnvironment(FileDialogs &panel, ControllerLookup lookup);

    bool listen(const QString &path, QString *error = nullptr);

    // The file chooser the program should use while the channel exists.
    FileDialogs &fileDialogs() { return m_chooser; }

    // Runs one command line and answers it.
    QString execute(const QString &line);

private:
    // Answers the file chosen through "open" once, like a panel the user clicked
    // through; otherwise shows the real panel.
    class Chooser final : public FileDialogs
    {
    public:
        explicit Chooser(FileDialogs &panel) : m_panel(panel) {}
        void chooseMovie(QWidget *parent, std::function<void(std::optional<QString>)> done) override;
        std::optional<QString> pending;

    private:
        FileDialogs &m_panel;
    };

    void acceptConnections();
    void readCommands(QLocalSocket *client);
    QString pressButton(ViewController &controller, const char *name);
    QString openMovie(ViewController &controller, const QString &path);
    QString selectCamera(ViewController &controller, const QString &argument);

    Chooser m_chooser;
    ControllerLookup m_lookup;
    std::unique_ptr<QLocalServer> m_server;
};

} // namespace vistrel
