// The application delegate's answers to the extension request that onboarding submits.
#include "app/AppDelegate.h"

#include "core/NotificationCenter.h"
#include "core/Platform.h"
#include "core/TraceLog.h"
#include "core/UserDefaults.h"
#include "onboarding/OnboardingManager.h"
#include "sysext/CameraExtensionHelper.h"
#include "sysext/ExtensionManager.h"

namespace vistrel {

int AppDelegate::actionForReplacingExtension(const QString &existingVersion, const QString &newVersion)
{
    traceLog(QStringLiteral("sysext replace: ") + existingVersion + QStringLiteral(" -> ") + newVersion);
    return sysext::Replace;
}

void AppDelegate::requestNeedsUserApproval()
{
    traceLog(QStringLiteral("sysext needs user approval"));
    QMetaObject::invokeMethod(
        this,
        [this] {
            showSettingsAlert(
                QStringLiteral("Approval Required"),
                QStringLiteral("Please allow Vistrel to install the camera extension: enter your password "
                               "when asked, and approve its signing key at the next restart if your "
                               "computer uses Secure Boot.\n\nYou may need to restart Vistrel after "
                               "approving."));
        },
        Qt::QueuedConnection);
}

void AppDelegate::requestDidFinishWithResult(int result)
{
    traceLog(QStringLiteral("sysext finished result=") + QString::number(result));
    QMetaObject::invokeMethod(
        this, [this, result] { handleInstallResult(result); }, Qt::QueuedConnection);
}

void AppDelegate::requestDidFailWithError(const sysext::ExtensionRequestError &error)
{
    traceLog(QStringLiteral("sysext failed code=") + QString::number(error.code) + QStringLiteral(" domain=")
             + error.domain + QStringLiteral(" desc=") + error.description);
    QString text;
    if (error.domain == sysext::kSystemExtensionErrorDomain && error.code == sysext::UnsupportedParentBundleLocation) {
        text = QStringLiteral("Vistrel cannot install the camera extension unless the app is installed on this "
                              "computer.\n\nQuit Vistrel, install its package (for example “sudo apt install "
                              "./vistrel_1.0_amd64.deb”), then reopen it.");
    } else {
        text = QStringLiteral("The camera extension could not be installed.\n\nPlease make sure the v4l2loopback "
                              "kernel module is installed (Camera Help shows how) and allow Vistrel to set it up "
                              "when asked for your password.\n\nError: ")
            + error.description;
    }
    QMetaObject::invokeMethod(
        this, [this, text] { showSettingsAlert(QStringLiteral("Installation Failed"), text); }, Qt::QueuedConnection);
}

void AppDelegate::showSettingsAlert(const QString &title, const QString &text)
{
    const int response = m_services.alerts->runModal(
        {title, text, AlertStyle::Warning, {QStringLiteral("Open Camera Help"), QStringLiteral("Close")}});
    if (response == 0)
        sysext::CameraExtensionHelper::openExtensionSettings(*m_services.urlOpener, m_services.bundle);
}

void AppDelegate::handleInstallResult(int result)
{
    if (result == sysext::WillCompleteAfterReboot) {
        m_services.defaults->setBool(QString::fromLatin1(kExtensionInstalledKey), true);
        m_services.alerts->runModal({QStringLiteral("Restart Your Computer"),
                                     QStringLiteral("The camera extension will finish installing after you restart "
                                                    "your computer. Vistrel will now quit — please reboot, then "
                                                    "reopen Vistrel."),
                                     AlertStyle::Warning,
                                     {QStringLiteral("Quit Vistrel")}});
        m_services.application->terminate();
    } else if (result == sysext::Completed) {
        m_services.defaults->setBool(QString::fromLatin1(kExtensionInstalledKey), true);
        m_services.notifications->post(kExtensionInstallationComplete);
        m_services.alerts->runModal({QStringLiteral("Camera Extension Installed"),
                                     QStringLiteral("Vistrel must relaunch for the camera extension to become usable. "
                                                    "This only takes a moment."),
                                     AlertStyle::Informational,
                                     {QStringLiteral("Relaunch Now")}});
        restartApp();
    }
}

} // namespace vistrel
