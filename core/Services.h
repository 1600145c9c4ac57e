#pragma once
#include "core/Bundle.h"

namespace vistrel {
class AlertPresenter;
class Application;
class Clock;
class FileDialogs;
class Launcher;
class Timers;
class NotificationCenter;
class UrlOpener;
class UserDefaults;
namespace camera {
class CameraAuthorization;
class DeviceDiscovery;
} // namespace camera
namespace vcam {
class VirtualCameraSystem;
}
namespace sysext {
class ExtensionManager;
class ExtensionProbes;
} // namespace sysext

// Everything the application's logic needs from the platform, handed in once.
// The running app fills it with the Linux implementations (app/main.cpp); tests fill
// it with theirs. Nothing here is owned.
struct Services
{
    Bundle bundle;
    UserDefaults *defaults = nullptr;
    NotificationCenter *notifications = nullptr;
    Clock *clock = nullptr;
    Timers *timers = nullptr;
    AlertPresenter *alerts = nullptr;
    FileDialogs *fileDialogs = nullptr;
    Launcher *launcher = nullptr;
    UrlOpener *urlOpener = nullptr;
    Application *application = nullptr;
    camera::CameraAuthorization *cameraAuthorization = nullptr;
    camera::DeviceDiscovery *cameraDiscovery = nullptr;
    vcam::VirtualCameraSystem *virtualCamera = nullptr;
    sysext::ExtensionProbes *extensionProbes = nullptr;
    sysext::ExtensionManager *extensionManager = nullptr;
};

} // namespace vistrel
