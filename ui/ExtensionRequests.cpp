#include "ui/ExtensionRequests.h"

#include "core/NotificationCenter.h"
#include "core/Platform.h"
#include "sysext/CameraExtensionHelper.h"
#include "sysext/ExtensionBundle.h"
#include "sysext/ExtensionManager.h"

namespace vistrel {

ExtensionRequests::ExtensionRequests(const Services &services, std::function<void(const QString &)> showMessage,
                                     QObject *parent)
    : QObject(parent), m_services(services), m_showMessage(std::move(showMessage))
{}

namespace {

void submit(ExtensionRequests *requests, sysext::ExtensionManager *manager, sysext::RequestKind kind,
            const QString &identifier)
{
    if (!manager)
        return;
    manager->submitRequest({kind, identifier, sysext::delegateFor(requests)});
}

} // namespace

void ExtensionRequests::requestActivation()
{
    requestExtensionChange(sysext::RequestKind::Activation);
}

void ExtensionRequests::requestDeactivation()
{
    requestExtensionChange(sysext::RequestKind::Deactivation);
}

void ExtensionRequests::requestExtensionChange(sysext::RequestKind kind)
{
    const sysext::ExtensionBundle bundle = sysext::extensionBundle(m_services.bundle);
    if (bundle.identifier.isEmpty())
        return;
    m_activating = kind == sysext::RequestKind::Activation;
    submit(this, m_services.extensionManager, kind, bundle.identifier);
}

void ExtensionRequests::warnIfExtensionNotActivated()
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

int ExtensionRequests::actionForReplacingExtension(const QString &existingVersion, const QString &newVersion)
{
    m_showMessage(QStringLiteral("Replacing extension version ") + existingVersion + QStringLiteral(" with ")
                  + newVersion);
    return sysext::Replace;
}

void ExtensionRequests::requestNeedsUserApproval()
{
    m_showMessage(
        QStringLiteral("Extension needs user approval and please restart the Vistrel to finish activating the camera"));
}

void ExtensionRequests::requestDidFinishWithResult(int result)
{
    m_showMessage(QStringLiteral("Request finished with result: ") + QString::number(result));
    if (result != sysext::Completed) {
        m_showMessage(m_activating ? QStringLiteral("Please reboot to finish activating the Dorvane camera")
                                   : QStringLiteral("Please Reboot to finish deactivating the Dorvane camera"));
        return;
    }
    if (m_activating) {
        m_showMessage(QStringLiteral("The camera is activated"));
        m_services.notifications->post(kExtensionInstallationComplete);
    } else {
        m_showMessage(QStringLiteral("The camera is deactivated"));
    }
}

void ExtensionRequests::requestDidFailWithError(const sysext::ExtensionRequestError &)
{
    m_showMessage(m_activating
                      ? QStringLiteral("Failed to activate the camera, install Vistrel on this computer first :)")
                      : QStringLiteral("Failed to deactivate the camera"));
}

} // namespace vistrel
