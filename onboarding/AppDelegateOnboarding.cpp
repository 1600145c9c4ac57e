#include "app/AppDelegate.h"

namespace vistrel {

// The onboarding window is not wired yet: the onboarding path shows nothing until it lands.
void AppDelegate::showOnboardingWindow() {}

} // namespace vistrel
