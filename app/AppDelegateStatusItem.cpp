// The status item and window toggling.
#include "app/AppDelegate.h"

namespace vistrel {

// The status item is not wired yet: launch creates no tray icon until it lands.
void AppDelegate::setupStatusItem() {}
void AppDelegate::statusItemClicked() {}
void AppDelegate::toggleMainWindowFromStatusItem() {}
void AppDelegate::showMainWindowBelowStatusItem() {}
void AppDelegate::windowDidResignKey(QWidget *) {}
void AppDelegate::positionWindowBelowStatusItem(QWidget *) {}
void AppDelegate::resetOnboarding() {}
void AppDelegate::showInfoAlert(const QString &, const QString &) {}

} // namespace vistrel
