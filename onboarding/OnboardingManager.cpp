#include "onboarding/OnboardingManager.h"

#include "camera/CameraAuthorization.h"
#include "core/Services.h"
#include "core/UserDefaults.h"
#include "sysext/ExtensionProbes.h"

namespace vistrel {

OnboardingManager::OnboardingManager(UserDefaults &defaults, camera::CameraAuthorization &authorization,
                                     sysext::ExtensionProbes &probes)
    : m_defaults(defaults), m_authorization(authorization), m_probes(probes)
{}

OnboardingManager::OnboardingManager(const Services &services)
    : OnboardingManager(*services.defaults, *services.cameraAuthorization, *services.extensionProbes)
{}

bool OnboardingManager::isOnboardingNeeded() const
{
    const bool complete = onboardingComplete();
    const int status = m_authorization.authorizationStatus();
    const bool installedFlag = extensionInstalled();

    if (!installedFlag && !m_probes.isExtensionInstalledProbe())
        return true;
    // Once the flag is stored the extension counts as installed and enabled,
    // whatever the system reports.
    const bool activated = installedFlag || m_probes.isExtensionActivatedProbe();
    if (!complete)
        return true;
    if (status != camera::Authorized)
        return true;
    return !activated;
}

bool OnboardingManager::onboardingComplete() const
{
    return m_defaults.boolForKey(QString::fromLatin1(kOnboardingCompleteKey));
}

void OnboardingManager::setOnboardingComplete(bool complete)
{
    m_defaults.setBool(QString::fromLatin1(kOnboardingCompleteKey), complete);
}

bool OnboardingManager::extensionInstalled() const
{
    return m_defaults.boolForKey(QString::fromLatin1(kExtensionInstalledKey));
}

} // namespace vistrel
