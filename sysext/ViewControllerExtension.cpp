// The controller's extension requests and their answers, reported through showMessage.
#include "camera/ViewController.h"

#include "core/NotificationCenter.h"
#include "core/Platform.h"
#include "sysext/CameraExtensionHelper.h"
#include "sysext/ExtensionBundle.h"
#include "sysext/ExtensionManager.h"

namespace vistrel {
namespace {

void submit(ViewController *controller, sysext::ExtensionManager *manager, sysext::RequestKind kind,
            const QString &identifier)
{
    if (!manager)
        return;
    manager->submitRequest({kind, identifier, sysext::delegateFor(controller)});
}

} // namespace

void ViewController::requestActivation()
{
    requestExtensionChange(sysext::RequestKind::Activation);
}

void ViewController::requestDeactivation()
{
    requestExtensionChange(sysext::RequestKind::Deactivation);
}

void ViewController::requestExtensionChange(sysext::RequestKind kind)
{
    const sysext::ExtensionBundle bundle = sysext::extensionBundle(m_services.bundle);
    if (bundle.identifier.isEmpty())
        return;
    activating = kind == sysext::RequestKind::Activation;
    submit(this, m_services.extensionManager, kind, bundle.identifier);
}

void ViewController::activate(QObject *)
{
    requestActivation();
}

void ViewController::deactivate(QObject *)
{
    requestDeactivation();
}

void ViewController::warnIfExtensionNotActivated()
{
    sysext::ExtensionProbes &probes = *m_services.extensionProbes;
    if (!probes.isExtensionInstalledProbe() || probes.isExtensionActivatedProbe())
        return;
    const int response = m_services.alerts->runModal(
        {QStringLiteral("Camera Extension Not Activated"),
         QStringLiteral("The Vistrel camera extension is installed but not activated. Open Camera Help to enable it."),
         AlertStyle::Warning,
         {QStringLiteral("Open Camera Help"), QStringLiteral("Later")}});
    if (response == 0)
        sysext::CameraExtensionHelper::openExtensionSettings(*m_services.urlOpener, m_services.bundle);
}

int ViewController::actionForReplacingExtension(const QString &existingVersion, const QString &newVersion)
{
    showMessage(QStringLiteral("Replacing extension version ") + existingVersion + QStringLiteral(" with ") + newVersion);
    return sysext::Replace;
}

void ViewController::requestNeedsUserApproval()
{
    showMessage(QStringLiteral("Extension needs user approval and please restart the Vistrel to finish activating the camera"));
}

void ViewController::requestDidFinishWithResult(int result)
{
    showMessage(QStringLiteral("Request finished with result: ") + QString::number(result));
    if (result != sysext::Completed) {
        showMessage(activating ? QStringLiteral("Please reboot to finish activating the Dorvane camera")
                               : QStringLiteral("Please Reboot to finish deactivating the Dorvane camera"));
        return;
    }
    if (activating) {
        showMessage(QStringLiteral("The camera is activated"));
        m_services.notifications->post(kExtensionInstallationComplete);
    } else {
        showMessage(QStringLiteral("The camera is deactivated"));
    }
}

void ViewController::requestDidFailWithError(const sysext::ExtensionRequestError &)
{
    showMessage(activating ? QStringLiteral("Failed to activate the camera, install Vistrel on this computer first :)")
                           : QStringLiteral("Failed to deactivate the camera"));
}

} // namespace vistrel
