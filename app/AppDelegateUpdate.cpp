#include "app/AppDelegate.h"
#include "update/UpdateChecker.h"

namespace vistrel {

// One check per launch on the main-window path. It returns at once: the feed is
// awaited by the event loop, and any alert comes up later on the main thread.
void AppDelegate::startUpdateCheck()
{
    UpdateChecker::shared().checkForUpdates(m_services, this);
}

} // namespace vistrel
