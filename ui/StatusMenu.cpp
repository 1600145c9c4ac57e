#include "ui/StatusMenu.h"

#include "camera/FreezeEffect.h"
#include "ui/ViewController.h"

#include <QAction>
#include <QMenu>
#include <QSystemTrayIcon>

namespace vistrel {
namespace {

// A monochrome symbol from the resources, or no icon when it cannot be drawn.
QIcon symbol(const QString &path)
{
    QIcon icon(path);
    if (icon.pixmap(QSize(22, 22)).isNull())
        return {};
    // Trays that tint symbolic icons may recolour it.
    icon.setIsMask(true);
    return icon;
}

} // namespace

StatusMenu::StatusMenu(QSystemTrayIcon *statusItem, std::function<void()> showWindow, QObject *parent)
    : QObject(parent), m_statusItem(statusItem), m_showWindow(std::move(showWindow)), m_menu(new QMenu),
      m_plainIcon(symbol(QStringLiteral(":/images/snowflake.svg"))),
      m_heldIcon(symbol(QStringLiteral(":/images/snowflake-held.svg")))
{
    if (m_heldIcon.isNull())
        m_heldIcon = m_plainIcon;

    const auto addItem = [this](const QString &text) {
        auto *action = new QAction(text, this);
        m_menu->addAction(action);
        return action;
    };
    m_freeze = addItem(QStringLiteral("Freeze"));
    m_freeze->setCheckable(true);
    m_stutter = addItem(QStringLiteral("Stutter"));
    m_stutter->setCheckable(true);
    m_menu->addSeparator();
    QAction *show = addItem(QStringLiteral("Show Window"));
    m_menu->addSeparator();
    m_exit = addItem(QStringLiteral("Exit"));

    // A checkable item checks itself when chosen; the controller's state then sets the
    // mark back to what it really is.
    connect(m_freeze, &QAction::triggered, this, [this] {
        if (m_controller)
            m_controller->toggleFreeze();
        update();
    });
    connect(m_stutter, &QAction::triggered, this, [this] {
        if (m_controller)
            m_controller->toggleShutter();
        update();
    });
    connect(show, &QAction::triggered, this, [this] { m_showWindow(); });
    connect(m_exit, &QAction::triggered, this, [this] {
        if (m_controller)
            m_controller->closeApp();
    });

    m_statusItem->setContextMenu(m_menu);
    update();
}

StatusMenu::~StatusMenu()
{
    if (m_menu && m_statusItem->contextMenu() == m_menu)
        m_statusItem->setContextMenu(nullptr);
    delete m_menu;
}

void StatusMenu::follow(ViewController *controller)
{
    if (m_controller == controller)
        return;
    if (m_controller)
        disconnect(m_controller, nullptr, this, nullptr);
    m_controller = controller;
    if (m_controller) {
        connect(m_controller, &ViewController::stateChanged, this, &StatusMenu::update);
        // A controller that goes leaves the items disabled again.
        connect(m_controller, &QObject::destroyed, this, &StatusMenu::update, Qt::QueuedConnection);
    }
    update();
}

void StatusMenu::update()
{
    const bool ready = !m_controller.isNull();
    // Freeze's mark mirrors the freeze button's title rather than the frozen flag: the
    // shutter flips that flag every second, and a mark (and icon) flipping with it would
    // blink in the tray without telling the user anything the Stutter mark does not.
    // Like the button, the mark stays through a shutter started and stopped.
    const bool held = ready && m_controller->isFreezeHeld();
    const bool stuttering = ready && m_controller->effects().isShutterActive();

    m_freeze->setEnabled(ready);
    m_stutter->setEnabled(ready);
    m_exit->setEnabled(ready);
    m_freeze->setChecked(held);
    m_stutter->setChecked(stuttering);

    // Setting the same icon or text again is not free on every tray (a StatusNotifierItem
    // announces it on the bus): only real changes go out.
    const QIcon &icon = held || stuttering ? m_heldIcon : m_plainIcon;
    if (m_statusItem->icon().cacheKey() != icon.cacheKey())
        m_statusItem->setIcon(icon);
    const QString toolTip = stuttering ? QStringLiteral("Vistrel — stuttering")
        : held                         ? QStringLiteral("Vistrel — frozen")
                                       : QStringLiteral("Vistrel");
    if (m_statusItem->toolTip() != toolTip)
        m_statusItem->setToolTip(toolTip);
}

} // namespace vistrel
