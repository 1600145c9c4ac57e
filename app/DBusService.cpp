#include "app/DBusService.h"

#include "camera/CameraSource.h"
#include "camera/FreezeEffect.h"
#include "camera/VideoFileSource.h"
#include "core/SystemLog.h"
#include "ui/ViewController.h"
#include "vcam/VirtualCameraLink.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QFileInfo>
#include <QVariantMap>
#include <algorithm>

namespace vistrel {

DBusService::DBusService(std::function<ViewController *()> controller, std::function<void()> showWindow,
                         QObject *parent)
    : QObject(parent), m_controller(std::move(controller)), m_showWindow(std::move(showWindow))
{}

DBusService::~DBusService()
{
    if (m_bus.isConnected()) {
        m_bus.unregisterObject(QLatin1String(kObjectPath));
        m_bus.unregisterService(QLatin1String(kServiceName));
    }
}

bool DBusService::publish(QDBusConnection bus)
{
    const QString service = QLatin1String(kServiceName);
    QString why;
    if (!bus.isConnected())
        why = bus.lastError().message().isEmpty() ? QStringLiteral("no session bus") : bus.lastError().message();
    else if (!bus.registerObject(QLatin1String(kObjectPath), this, QDBusConnection::ExportScriptableContents))
        why = QStringLiteral("the object path is taken");
    else if (!bus.registerService(service)) {
        bus.unregisterObject(QLatin1String(kObjectPath));
        why = bus.lastError().message().isEmpty() ? QStringLiteral("the name is taken") : bus.lastError().message();
    }
    if (!why.isEmpty()) {
        systemLog(QStringLiteral("D-Bus interface not available: ") + why);
        return false;
    }
    m_bus = bus;
    m_announced = state();
    return true;
}

void DBusService::follow(ViewController *controller)
{
    if (controller)
        connect(controller, &ViewController::stateChanged, this, &DBusService::announceChanges, Qt::UniqueConnection);
}

DBusService::State DBusService::state() const
{
    State now;
    ViewController *controller = m_controller ? m_controller() : nullptr;
    if (!controller)
        return now;
    now.frozen = controller->effects().isFrozen();
    now.stuttering = controller->effects().isShutterActive();
    now.moviePlaying = controller->videoFileSource().isPlayingVideo();
    if (const auto &device = controller->cameraSource().selectedDevice())
        now.camera = device->localizedName;
    for (const camera::CameraDevice &device : controller->cameraSource().videoDevices())
        now.cameras << device.localizedName;
    now.streaming = controller->link().needToStream();
    return now;
}

ViewController *DBusService::readyController()
{
    ViewController *controller = m_controller ? m_controller() : nullptr;
    if (!controller && calledFromDBus())
        sendErrorReply(QLatin1String(kNotReady),
                       QStringLiteral("Vistrel is not ready: the camera window opens once set-up is finished"));
    return controller;
}

void DBusService::SetFrozen(bool frozen)
{
    if (ViewController *controller = readyController()) {
        if (controller->effects().isFrozen() != frozen)
            controller->toggleFreeze();
    }
}

void DBusService::ToggleFreeze()
{
    if (ViewController *controller = readyController())
        controller->toggleFreeze();
}

void DBusService::SetStuttering(bool stuttering)
{
    if (ViewController *controller = readyController()) {
        if (controller->effects().isShutterActive() != stuttering)
            controller->toggleShutter();
    }
}

void DBusService::ToggleStutter()
{
    if (ViewController *controller = readyController())
        controller->toggleShutter();
}

void DBusService::OpenMovie(const QString &path)
{
    ViewController *controller = readyController();
    if (!controller)
        return;
    // Refused here rather than in an alert nobody at the caller's end would see.
    QString problem =
        path.isEmpty() ? QStringLiteral("no file was named.") : camera::VideoFileSource::notAMovieFile(path);
    if (problem.isEmpty() && !QFileInfo(path).isReadable())
        problem = QStringLiteral("it cannot be read.");
    if (!problem.isEmpty()) {
        sendErrorReply(QLatin1String(kNotAMovie),
                       QStringLiteral("\u201c%1\u201d cannot be played: %2").arg(path, problem));
        return;
    }
    controller->openMovie(QFileInfo(path).absoluteFilePath());
}

void DBusService::StopMovie()
{
    if (ViewController *controller = readyController())
        controller->stopVideo();
}

void DBusService::ShowWindow()
{
    if (readyController() && m_showWindow)
        m_showWindow();
}

void DBusService::SelectCamera(const QString &name)
{
    ViewController *controller = readyController();
    if (!controller)
        return;
    const auto &devices = controller->cameraSource().videoDevices();
    const auto found = std::find_if(devices.begin(), devices.end(),
                                    [&](const camera::CameraDevice &device) { return device.localizedName == name; });
    if (found == devices.end()) {
        sendErrorReply(QLatin1String(kNoSuchCamera), QStringLiteral("No camera is called \u201c%1\u201d.").arg(name));
        return;
    }
    controller->selectCamera(static_cast<int>(found - devices.begin()));
}

void DBusService::announceChanges()
{
    const State now = state();
    if (now == m_announced || !m_bus.isConnected())
        return;
    QVariantMap changed;
    if (now.frozen != m_announced.frozen)
        changed.insert(QStringLiteral("Frozen"), now.frozen);
    if (now.stuttering != m_announced.stuttering)
        changed.insert(QStringLiteral("Stuttering"), now.stuttering);
    if (now.moviePlaying != m_announced.moviePlaying)
        changed.insert(QStringLiteral("MoviePlaying"), now.moviePlaying);
    if (now.camera != m_announced.camera)
        changed.insert(QStringLiteral("Camera"), now.camera);
    if (now.cameras != m_announced.cameras)
        changed.insert(QStringLiteral("Cameras"), now.cameras);
    if (now.streaming != m_announced.streaming)
        changed.insert(QStringLiteral("Streaming"), now.streaming);
    m_announced = now;
    QDBusMessage signal =
        QDBusMessage::createSignal(QLatin1String(kObjectPath), QStringLiteral("org.freedesktop.DBus.Properties"),
                                   QStringLiteral("PropertiesChanged"));
    signal << QLatin1String(kInterface) << changed << QStringList();
    m_bus.send(signal);
}

} // namespace vistrel
