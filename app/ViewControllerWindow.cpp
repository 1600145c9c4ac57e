// The controller's window actions.
#include "camera/ViewController.h"

namespace vistrel {

// Window toggling and exit are not wired yet: they arrive with the status item.
void ViewController::toggleWindow() {}
void ViewController::closeApp(QObject *) {}
void ViewController::mainWindowShown() {}

} // namespace vistrel
