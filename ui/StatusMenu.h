#pragma once
#include <QIcon>
#include <QObject>
#include <QPointer>
#include <functional>

class QAction;
class QMenu;
class QSystemTrayIcon;

namespace vistrel {

class ViewController;

// The status item's context menu, its icon and its tooltip.
//
// The menu reads "Freeze" and "Stutter" (checkable), a separator, "Show Window", a
// separator, "Exit". Freeze, Stutter and Exit work the main window's controller through
// its own actions, so a choice leaves the same console lines, trace and button titles as
// the window's buttons (Exit asks the same confirmation). Until there is a controller to
// follow, Freeze, Stutter and Exit are disabled; Show Window is always there.
//
// The check marks, the icon and the tooltip follow the controller's stateChanged,
// whoever made the change: the window, the session bus, the shutter. While Freeze holds
// the picture or the shutter runs, the icon is the held snowflake and the tooltip says
// "Vistrel — frozen" or "Vistrel — stuttering"; otherwise the plain snowflake and
// "Vistrel".
//
// Threads: the main thread.
class StatusMenu final : public QObject
{
    Q_OBJECT
public:
    // Gives `statusItem` (which must outlive this) its menu, icon and tooltip.
    // `showWindow` shows the main window below the status item.
    StatusMenu(QSystemTrayIcon *statusItem, std::function<void()> showWindow, QObject *parent = nullptr);
    ~StatusMenu() override;

    // Follows `controller` from now on: its state, and the target of the menu's items.
    void follow(ViewController *controller);

private:
    void update();

    QSystemTrayIcon *m_statusItem;
    std::function<void()> m_showWindow;
    QPointer<ViewController> m_controller;
    // Top-level, so not owned by a parent; whoever closes every top-level widget may
    // delete it first. The items are this object's, so they outlive the menu.
    QPointer<QMenu> m_menu;
    QAction *m_freeze = nullptr;
    QAction *m_stutter = nullptr;
    QAction *m_exit = nullptr;
    QIcon m_plainIcon;
    QIcon m_heldIcon;
};

} // namespace vistrel
