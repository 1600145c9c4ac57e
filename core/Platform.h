#pragma once
// The small platform seams that the logic receives. The Linux implementations are
// wired together in one place (app/LinuxPlatform); tests hand in their own.
#include <QString>
#include <QStringList>
#include <QUrl>
#include <functional>
#include <optional>

class QWidget;

namespace vistrel {

// Seconds on a monotonic clock.
class Clock
{
public:
    virtual ~Clock() = default;
    virtual double now() const = 0;
};

enum class AlertStyle { Informational, Warning, Critical };

struct AlertSpec
{
    QString title;
    QString text;
    AlertStyle style = AlertStyle::Informational;
    QStringList buttons; // first one is the default
};

// Runs modal alerts; answers the index of the button pressed (0 = first), or -1
// when the alert was closed without a button.
class AlertPresenter
{
public:
    virtual ~AlertPresenter() = default;
    virtual int runModal(const AlertSpec &alert) = 0;
};

// Non-blocking file chooser for a movie. The callback runs on the main thread with
// the chosen file, or with nothing when the user cancelled.
class FileDialogs
{
public:
    virtual ~FileDialogs() = default;
    virtual void chooseMovie(QWidget *parent, std::function<void(std::optional<QString>)> done) = 0;
};

// Starts a program as a new, detached process.
class Launcher
{
public:
    virtual ~Launcher() = default;
    virtual bool launchDetached(const QString &program, const QStringList &arguments, QString *error) = 0;
};

// Opens a URL in its default handler (the browser for web pages and help files).
class UrlOpener
{
public:
    virtual ~UrlOpener() = default;
    virtual void openUrl(const QUrl &url) = 0;
};

// The running application: termination (which runs the delegate's will-terminate
// handler) and activation.
class Application
{
public:
    virtual ~Application() = default;
    virtual void terminate() = 0;
    virtual void activateIgnoringOtherApps() = 0;
};

} // namespace vistrel
