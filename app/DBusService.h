#pragma once
#include <QDBusConnection>
#include <QDBusContext>
#include <QObject>
#include <QString>
#include <QStringList>
#include <functional>

namespace vistrel {

class ViewController;

// Vistrel on the session bus: the name app.vistrel.Vistrel, the object
// /app/vistrel/Vistrel and the interface app.vistrel.Vistrel1 (the interface file
// resources/dbus/app.vistrel.Vistrel1.xml describes it for callers).
//
// Every method works the main window's controller the way its buttons do, so a call
// leaves the same trace, console lines and button titles as a click. Before the main
// window exists (during onboarding) the methods answer the error kNotReady; the
// properties then read as false and "". A change of a property is announced with
// org.freedesktop.DBus.Properties.PropertiesChanged, whoever made it: a call, a click,
// the shutter's own switches, a reader of the virtual camera.
//
// Threads: the main thread.
class DBusService final : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "app.vistrel.Vistrel1")
    Q_PROPERTY(bool Frozen READ frozen)
    Q_PROPERTY(bool Stuttering READ stuttering)
    Q_PROPERTY(bool MoviePlaying READ moviePlaying)
    Q_PROPERTY(QString Camera READ camera)
    Q_PROPERTY(QStringList Cameras READ cameras)
    Q_PROPERTY(bool Streaming READ streaming)
public:
    static constexpr const char *kServiceName = "app.vistrel.Vistrel";
    static constexpr const char *kObjectPath = "/app/vistrel/Vistrel";
    static constexpr const char *kInterface = "app.vistrel.Vistrel1";
    static constexpr const char *kNotReady = "app.vistrel.Vistrel1.Error.NotReady";
    static constexpr const char *kNotAMovie = "app.vistrel.Vistrel1.Error.NotAMovie";
    static constexpr const char *kNoSuchCamera = "app.vistrel.Vistrel1.Error.NoSuchCamera";

    // `controller` answers the main window's controller, or nothing while there is none;
    // `showWindow` shows the main window below the status item.
    DBusService(std::function<ViewController *()> controller, std::function<void()> showWindow,
                QObject *parent = nullptr);
    ~DBusService() override;

    // Publishes the object and claims the name on `bus`. When either fails (no bus, the
    // name taken), one line on the system log says so and the program goes on without.
    bool publish(QDBusConnection bus);
    // Announces the changes `controller` reports from now on.
    void follow(ViewController *controller);

    bool frozen() const { return state().frozen; }
    bool stuttering() const { return state().stuttering; }
    bool moviePlaying() const { return state().moviePlaying; }
    QString camera() const { return state().camera; }
    QStringList cameras() const { return state().cameras; }
    bool streaming() const { return state().streaming; }

public Q_SLOTS:
    Q_SCRIPTABLE void SetFrozen(bool frozen);
    Q_SCRIPTABLE void ToggleFreeze();
    Q_SCRIPTABLE void SetStuttering(bool stuttering);
    Q_SCRIPTABLE void ToggleStutter();
    Q_SCRIPTABLE void OpenMovie(const QString &path);
    Q_SCRIPTABLE void StopMovie();
    Q_SCRIPTABLE void ShowWindow();
    Q_SCRIPTABLE void SelectCamera(const QString &name);

private:
    struct State
    {
        bool frozen = false;
        bool stuttering = false;
        bool moviePlaying = false;
        QString camera;
        QStringList cameras;
        bool streaming = false;
        bool operator==(const State &) const = default;
    };
    State state() const;
    // The controller, or nothing after an error reply to the current call.
    ViewController *readyController();
    void announceChanges();

    std::function<ViewController *()> m_controller;
    std::function<void()> m_showWindow;
    State m_announced;
    QDBusConnection m_bus{QString()};
};

} // namespace vistrel
