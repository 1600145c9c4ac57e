#include "app/AppDelegate.h"
#include "onboarding/OnboardingCoordinator.h"
#include "sysext/ExtensionManager.h"

namespace vistrel {

// The set-up window, with this delegate answering its extension request; finishing
// it relaunches the app onto the main-window path.
void AppDelegate::showOnboardingWindow()
{
    OnboardingCoordinator::shared().showOnboarding(m_services, sysext::delegateFor(this),
                                                   [this] { onboardingCompleted(); });
}

} // namespace vistrel
