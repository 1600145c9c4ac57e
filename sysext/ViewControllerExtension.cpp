// The controller's extension requests and their answers.
#include "camera/ViewController.h"
#include "sysext/ExtensionManager.h"

namespace vistrel {

// Extension requests are not wired yet: nothing is submitted until the extension manager lands.
void ViewController::requestActivation() {}
void ViewController::requestDeactivation() {}
void ViewController::activate(QObject *) {}
void ViewController::deactivate(QObject *) {}
void ViewController::warnIfExtensionNotActivated() {}
int ViewController::actionForReplacingExtension(const QString &, const QString &) { return 1; }
void ViewController::requestNeedsUserApproval() {}
void ViewController::requestDidFinishWithResult(int) {}
void ViewController::requestDidFailWithError(const sysext::ExtensionRequestError &) {}

} // namespace vistrel
