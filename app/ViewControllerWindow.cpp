// The controller's window actions.
#include "camera/ViewController.h"

#include "core/NotificationCenter.h"
#include "core/Platform.h"
#include "core/SystemLog.h"

namespace vistrel {

void ViewController::toggleWindow()
{
    if (!window) {
        consoleLine(QStringLiteral("Erreur : Fenêtre principale non trouvée!"));
        return;
    }
    // Unlike the status item, this neither places the window nor debounces.
    if (!window->isVisible()) {
        window->show();
        window->raise();
        window->activateWindow();
        m_services.application->activateIgnoringOtherApps();
    } else {
        window->hide();
    }
}

void ViewController::closeApp(QObject *)
{
    const AlertSpec confirmation{QStringLiteral("Exit Vistrel"), QStringLiteral("Are you sure you want to exit Vistrel?"),
                                 AlertStyle::Warning, {QStringLiteral("Exit"), QStringLiteral("Cancel")}};
    if (m_services.alerts->runModal(confirmation) == 0)
        m_services.application->terminate();
}

void ViewController::mainWindowShown()
{
    // The start-up that loading deferred while onboarding was pending; runs once.
    startVirtualCameraLink();
    m_services.notifications->removeObserver(this, kMainWindowShown);
}

} // namespace vistrel
