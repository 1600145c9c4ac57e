// Process entry: wires the Linux implementations of the platform seams, loads the
// interface file's main window (as the platform would at start), then runs the
// delegate's launch sequence from the event loop.
#include "app/AppDelegate.h"
#include "app/CommandLine.h"
#include "app/DBusService.h"
#include "app/GlobalShortcuts.h"
#include "app/LinuxPlatform.h"
#include "app/TerminationSignals.h"
#include "camera/CameraAuthorization.h"
#include "camera/DeviceMonitorDiscovery.h"
#include "core/NotificationCenter.h"
#include "core/Timers.h"
#include "core/TraceLog.h"
#include "core/UserDefaults.h"
#include "sysext/CameraExtensionHelper.h"
#include "sysext/HelperExtensionManager.h"
#include "ui/MainWindowController.h"
#include "ui/ViewController.h"
#include "vcam/v4l2loopback/LoopbackSystem.h"

#include <QApplication>
#include <QTimer>
#include <gst/gst.h>

int main(int argc, char *argv[])
{
    // With arguments Vistrel is a command for the running instance: no window, no tray.
    if (argc > 1)
        return vistrel::runCommandLine(argc, argv);

    gst_init(&argc, &argv);
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Vistrel"));
    QApplication::setOrganizationName(QStringLiteral("Vistrel"));
    QApplication::setDesktopFileName(QStringLiteral("app.vistrel.Vistrel"));
    QApplication::setWindowIcon(QIcon(QStringLiteral(":/images/app.vistrel.Vistrel.svg")));
    // A tray utility: closing a window never ends the program.
    QApplication::setQuitOnLastWindowClosed(false);

    // A second launch shows the running app's window instead of starting another.
    vistrel::SingleInstance singleInstance(vistrel::SingleInstance::defaultKey());
    if (singleInstance.notifyRunningInstance())
        return 0;
    singleInstance.listen();

    using namespace vistrel;
    SteadyClock clock;
    QtTimers timers;
    MessageBoxAlertPresenter alerts;
    QtFileDialogs fileDialogs;
    ProcessLauncher launcher;
    DesktopUrlOpener urlOpener;
    QtApplication application;
    // Logout, `systemctl --user stop`, `kill` and Ctrl+C end the app the way its Exit
    // buttons do, so the will-terminate handler runs (resetting an unfinished onboarding)
    // and the process exits normally.
    TerminationSignals terminationSignals([&application](int signal) {
        traceLog(QStringLiteral("terminating on ") + TerminationSignals::name(signal));
        application.terminate();
    });
    camera::V4l2CameraAuthorization cameraAuthorization;
    camera::DeviceMonitorDiscovery cameraDiscovery;
    sysext::CameraExtensionHelper extensionProbes(Bundle::main());
    sysext::HelperExtensionManager extensionManager(sysext::HelperExtensionManager::configFor(Bundle::main()));
    vcam::LoopbackSystem virtualCamera;

    Services services;
    services.bundle = Bundle::main();
    services.defaults = &UserDefaults::standard();
    services.notifications = &NotificationCenter::defaultCenter();
    services.clock = &clock;
    services.timers = &timers;
    services.alerts = &alerts;
    services.fileDialogs = &fileDialogs;
    services.launcher = &launcher;
    services.urlOpener = &urlOpener;
    services.application = &application;
    services.cameraAuthorization = &cameraAuthorization;
    services.cameraDiscovery = &cameraDiscovery;
    services.extensionProbes = &extensionProbes;
    services.extensionManager = &extensionManager;
    services.virtualCamera = &virtualCamera;

    AppDelegate delegate(services);
    delegate.setSingleInstance(&singleInstance);
    QObject::connect(&singleInstance, &SingleInstance::activationRequested, &delegate,
                     &AppDelegate::applicationShouldHandleReopen);
    QObject::connect(&app, &QCoreApplication::aboutToQuit, &delegate, &AppDelegate::applicationWillTerminate);

    // The interface file's initial window is loaded before launch completes, hidden.
    std::unique_ptr<QWidget> autoLoadedWindow;
    if (MainWindowController *controller = instantiateMainInterface(services, services.bundle.mainInterfacePath()))
        autoLoadedWindow.reset(controller->window());

    // Desktop shells and scripts drive the same controls over the session bus.
    DBusService bus(
        [&delegate]() -> ViewController * {
            if (delegate.isOnboardingInProgress() || !delegate.mainWindowController())
                return nullptr;
            return delegate.mainWindowController()->contentViewController();
        },
        [&delegate] { delegate.showMainWindowBelowStatusItem(); });
    QObject::connect(&delegate, &AppDelegate::mainWindowPrepared, &bus, &DBusService::follow);
    bus.publish(QDBusConnection::sessionBus());
    // The desktop's global shortcuts press Freeze and Stutter while a call's window has
    // the focus, through the same operations as the bus methods.
    GlobalShortcuts shortcuts([&bus] { bus.ToggleFreeze(); }, [&bus] { bus.ToggleStutter(); }, timers);
    shortcuts.start(QDBusConnection::sessionBus());

    QTimer::singleShot(0, &delegate, &AppDelegate::applicationDidFinishLaunching);
    return app.exec();
}
