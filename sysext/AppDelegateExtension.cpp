// The application delegate's answers to the onboarding extension request.
#include "app/AppDelegate.h"
#include "sysext/ExtensionManager.h"

namespace vistrel {

// Extension answers are not wired yet: they arrive with the extension manager.
int AppDelegate::actionForReplacingExtension(const QString &, const QString &) { return 1; }
void AppDelegate::requestNeedsUserApproval() {}
void AppDelegate::requestDidFinishWithResult(int) {}
void AppDelegate::requestDidFailWithError(const sysext::ExtensionRequestError &) {}
void AppDelegate::showSettingsAlert(const QString &, const QString &) {}
void AppDelegate::handleInstallResult(int) {}

} // namespace vistrel
