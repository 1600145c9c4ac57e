// The status item and window toggling.
#include "app/AppDelegate.h"

#include "core/Platform.h"
#include "core/SystemLog.h"
#include "core/WindowPlacement.h"
#include "onboarding/OnboardingCoordinator.h"
#include "onboarding/OnboardingManager.h"
#include "ui/MainWindowController.h"
#include "ui/StatusMenu.h"
#include "ui/ViewController.h"

#include <QAbstractButton>
#include <QApplication>
#include <QGuiApplication>
#include <QScreen>
#include <QSystemTrayIcon>
#include <QWidget>

namespace vistrel {
namespace {

// A click this soon after the window was hidden is the click that hid it.
constexpr double kDebounceSeconds = 0.3;
// Clock readings are doubles: 1000.3 − 1000.0 is a hair under 0.3, which must not
// count as inside the debounce.
constexpr double kClockTolerance = 1e-6;

} // namespace

void AppDelegate::setupStatusItem()
{
    m_statusMenu.reset();
    m_statusItem = std::make_unique<QSystemTrayIcon>();
    // The icon, the tooltip and the right-click menu; a left click never opens the menu.
    m_statusMenu = std::make_unique<StatusMenu>(m_statusItem.get(), [this] { prepareAndShowMainWindow(); });
    connect(this, &AppDelegate::mainWindowPrepared, m_statusMenu.get(), &StatusMenu::follow);
    if (m_mainWindowController)
        m_statusMenu->follow(m_mainWindowController->contentViewController());
    connect(m_statusItem.get(), &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger)
            statusItemClicked();
    });
    m_statusItem->show();
}

void AppDelegate::statusItemClicked()
{
    toggleMainWindowFromStatusItem();
}

void AppDelegate::toggleMainWindowFromStatusItem()
{
    const double now = m_services.clock->now();
    if (now - m_popupHideTimestamp < kDebounceSeconds - kClockTolerance)
        return;

    if (m_mainWindowController && m_mainWindowController->window()) {
        QWidget *window = m_mainWindowController->window();
        if (window->isVisible()) {
            window->hide();
            m_popupHideTimestamp = now;
            return;
        }
    }
    prepareAndShowMainWindow();
}

void AppDelegate::prepareAndShowMainWindow()
{
    if (!m_mainWindowController || !m_mainWindowController->window())
        prepareMainWindow();
    // When the fallback window was shown instead, there is nothing more to do.
    if (m_mainWindowController && m_mainWindowController->window())
        showMainWindowBelowStatusItem();
}

void AppDelegate::showMainWindowBelowStatusItem()
{
    QWidget *window = m_mainWindowController->window();
    // The window's own actions that belong to the delegate; connected once.
    if (auto *reset = window->findChild<QAbstractButton *>(QStringLiteral("resetOnboardingButton")))
        connect(reset, &QAbstractButton::clicked, this, &AppDelegate::resetOnboarding, Qt::UniqueConnection);

    positionWindowBelowStatusItem(window);
    m_services.application->activateIgnoringOtherApps();
    window->show();
    window->raise();
    window->activateWindow();
}

void AppDelegate::applicationShouldHandleReopen()
{
    systemLog(QStringLiteral("reopen requested by a second launch"));
    // During onboarding the camera window stays out of sight (it is never prepared on
    // that path): the onboarding window is what the user came back for.
    if (!m_onboardingInProgress && m_mainWindowController && m_mainWindowController->window()) {
        showMainWindowBelowStatusItem();
        return;
    }
    // Closing the set-up window only hides it: the app keeps running so that an extension
    // installation under way still gets its answer, its alerts and its relaunch. With no
    // status item on this path, launching the app again is how the user gets back to it,
    // so the window comes back here even when it was closed.
    if (m_onboardingInProgress) {
        if (OnboardingWindowController *controller = onboardingWindowController())
            controller->showWindow();
    }
    // The fallback or the onboarding window, whichever this launch shows.
    for (QWidget *window : QApplication::topLevelWidgets()) {
        if (window->isVisible() && window->isWindow() && !window->windowFlags().testFlag(Qt::ToolTip)) {
            m_services.application->activateIgnoringOtherApps();
            window->raise();
            window->activateWindow();
        }
    }
}

void AppDelegate::windowDidResignKey(QWidget *sender)
{
    if (!sender || !m_mainWindowController)
        return;
    QWidget *window = m_mainWindowController->window();
    // Hiding an active window deactivates it on the way out, while it still counts
    // as visible; it is already marked hidden then, and that is not a loss of key.
    if (!window || sender != window || !window->isVisible() || window->isHidden())
        return;
    window->hide();
    m_popupHideTimestamp = m_services.clock->now();
}

void AppDelegate::positionWindowBelowStatusItem(QWidget *window)
{
    // Most Wayland trays, and no tray at all, give no icon geometry.
    const QRect anchor = m_statusItem ? m_statusItem->geometry() : QRect();
    if (anchor.isEmpty()) {
        centerWindowOnScreen(window);
        return;
    }
    QScreen *screen = QGuiApplication::screenAt(anchor.center());
    if (!screen)
        screen = QGuiApplication::primaryScreen();
    std::optional<QRect> available;
    if (screen)
        available = screen->availableGeometry();
    // The window is frameless, so its frame is its geometry; its size never changes here.
    window->move(windowOriginBelowStatusItem(anchor, window->frameGeometry().size(), available));
}

void AppDelegate::resetOnboarding()
{
    // Only the completion flag: the extension record, the dismissed update and the
    // running window all stay as they are until the next launch.
    OnboardingManager(m_services).setOnboardingComplete(false);
    showInfoAlert(QStringLiteral("Onboarding Reset"),
                  QStringLiteral("Onboarding will be shown next time you launch the app."));
}

void AppDelegate::showInfoAlert(const QString &title, const QString &text)
{
    m_services.alerts->runModal({title, text, AlertStyle::Informational, {QStringLiteral("OK")}});
}

} // namespace vistrel
