#include "app/AppDelegate.h"

namespace vistrel {

// The update check is not wired yet: launch starts none until the update checker lands.
void AppDelegate::startUpdateCheck() {}

} // namespace vistrel
