// The status item's right-click menu, its icon and its tooltip, through the real
// QSystemTrayIcon and the real interface file's window, offscreen.
#include "app/AppDelegate.h"
#include "camera/FreezeEffect.h"
#include "ui/MainWindowController.h"
#include "ui/ViewController.h"

#include "ConsoleCapture.h"
#include "TestServices.h"

#include <QAction>
#include <QApplication>
#include <QMenu>
#include <QPushButton>
#include <QSignalSpy>
#include <QSystemTrayIcon>
#include <gtest/gtest.h>

using namespace vistrel;

namespace {

struct Cleanup
{
    ~Cleanup() { qDeleteAll(QApplication::topLevelWidgets()); }
};

QAction *item(QSystemTrayIcon *statusItem, const QString &text)
{
    const QList<QAction *> actions = statusItem->contextMenu()->actions();
    const auto found = std::find_if(actions.begin(), actions.end(), [&](QAction *a) { return a->text() == text; });
    return found == actions.end() ? nullptr : *found;
}

QImage iconImage(QSystemTrayIcon *statusItem)
{
    return statusItem->icon().pixmap(QSize(22, 22)).toImage();
}

} // namespace

// Before the window exists only Show Window works, and it prepares the window; a left
// click still toggles the window and never opens the menu; Exit asks first.
TEST(StatusMenuTest, ItemsInOrderShowWindowPreparesTheWindowAndExitAsksFirst)
{
    test::TestServices env;
    Cleanup cleanup;
    AppDelegate delegate(env.services);
    delegate.setupStatusItem();
    QSystemTrayIcon *statusItem = delegate.statusItem();
    ASSERT_TRUE(statusItem && statusItem->contextMenu());

    QStringList layout;
    for (const QAction *action : statusItem->contextMenu()->actions())
        layout << (action->isSeparator() ? QStringLiteral("--")
                                         : action->text() + (action->isCheckable() ? QStringLiteral(" [ ]") : QString())
                           + (action->isEnabled() ? QString() : QStringLiteral(" (disabled)")));
    EXPECT_EQ(
        layout,
        (QStringList{"Freeze [ ] (disabled)", "Stutter [ ] (disabled)", "--", "Show Window", "--", "Exit (disabled)"}));
    EXPECT_EQ(statusItem->toolTip(), QStringLiteral("Vistrel"));
    EXPECT_FALSE(statusItem->icon().isNull());

    item(statusItem, "Show Window")->trigger();
    ASSERT_TRUE(delegate.mainWindowController());
    QWidget *window = delegate.mainWindowController()->window();
    ASSERT_TRUE(window);
    EXPECT_TRUE(window->isVisible());
    EXPECT_EQ(env.application.activateCalls, 1);
    for (const char *name : {"Freeze", "Stutter", "Exit"})
        EXPECT_TRUE(item(statusItem, name)->isEnabled()) << name;

    // The left click is the toggle, with its debounce; the context reason is the menu's.
    Q_EMIT statusItem->activated(QSystemTrayIcon::Trigger);
    EXPECT_FALSE(window->isVisible());
    EXPECT_FALSE(statusItem->contextMenu()->isVisible());
    env.clock.advance(1.0);
    Q_EMIT statusItem->activated(QSystemTrayIcon::Context);
    EXPECT_FALSE(window->isVisible());
    Q_EMIT statusItem->activated(QSystemTrayIcon::Trigger);
    EXPECT_TRUE(window->isVisible());

    // "Cancel" keeps the app, "Exit" ends it, after the window's own confirmation.
    env.alerts.answers = {1, 0};
    item(statusItem, "Exit")->trigger();
    EXPECT_EQ(env.application.terminateCalls, 0);
    ASSERT_EQ(env.alerts.shown.size(), 1);
    EXPECT_EQ(env.alerts.shown.first().title, QStringLiteral("Exit Vistrel"));
    EXPECT_EQ(env.alerts.shown.first().buttons, (QStringList{QStringLiteral("Exit"), QStringLiteral("Cancel")}));
    item(statusItem, "Exit")->trigger();
    EXPECT_EQ(env.application.terminateCalls, 1);
    EXPECT_EQ(env.alerts.shown.size(), 2);
}

// Freeze and Stutter from the menu act as the window's buttons; the marks, the icon and
// the tooltip follow every change, the controller's own and the shutter's, and do not
// blink with the shutter's switches.
TEST(StatusMenuTest, MarksIconAndTooltipFollowEveryChangeWithoutBlinking)
{
    test::TestServices env;
    env.services.timers = &env.clock;
    Cleanup cleanup;
    AppDelegate delegate(env.services);
    delegate.prepareMainWindow();
    ASSERT_TRUE(delegate.mainWindowController());
    ViewController *vc = delegate.mainWindowController()->contentViewController();
    ASSERT_TRUE(vc);
    delegate.setupStatusItem(); // after the window: the menu follows the controller at once
    QSystemTrayIcon *statusItem = delegate.statusItem();
    QAction *freeze = item(statusItem, "Freeze");
    QAction *stutter = item(statusItem, "Stutter");
    ASSERT_TRUE(freeze && stutter);
    const auto buttonTitle = [&](const char *name) { return vc->findChild<QPushButton *>(name)->text(); };
    const QImage plain = iconImage(statusItem);

    struct Expected
    {
        bool frozen, shutter, freezeMark, stutterMark;
        const char *freezeTitle, *shutterTitle, *toolTip;
        bool heldIcon;
    };
    QImage held;
    const auto expect = [&](const char *step, const Expected &e) {
        SCOPED_TRACE(step);
        EXPECT_EQ(vc->effects().isFrozen(), e.frozen);
        EXPECT_EQ(vc->effects().isShutterActive(), e.shutter);
        EXPECT_EQ(freeze->isChecked(), e.freezeMark);
        EXPECT_EQ(stutter->isChecked(), e.stutterMark);
        EXPECT_EQ(buttonTitle("freezeButton"), QString::fromUtf8(e.freezeTitle));
        EXPECT_EQ(buttonTitle("shutterButton"), QString::fromUtf8(e.shutterTitle));
        EXPECT_EQ(statusItem->toolTip(), QString::fromUtf8(e.toolTip));
        const QImage icon = iconImage(statusItem);
        if (!e.heldIcon)
            EXPECT_EQ(icon, plain);
        else if (held.isNull())
            held = icon;
        else
            EXPECT_EQ(icon, held);
    };

    test::ConsoleCapture console;
    freeze->trigger();
    expect("Freeze from the menu", {true, false, true, false, "Unfreeze", "Stutter", "Vistrel — frozen", true});
    EXPECT_NE(held, plain) << "the held icon is a picture of its own";
    stutter->trigger();
    expect("Stutter from the menu", {true, true, true, true, "Unfreeze", "Stop", "Vistrel — stuttering", true});
    EXPECT_EQ(console.lines(), QStringList{QStringLiteral("Shutter activé : effet freeze toutes les 1s")});

    // The shutter flips the flag each second; nothing the user sees in the tray moves.
    QSignalSpy freezeChanges(freeze, &QAction::changed);
    QSignalSpy stutterChanges(stutter, &QAction::changed);
    for (const bool frozen : {false, true, false}) {
        env.clock.advance(1.0);
        expect("a shutter switch", {frozen, true, true, true, "Unfreeze", "Stop", "Vistrel — stuttering", true});
    }
    EXPECT_EQ(freezeChanges.count(), 0);
    EXPECT_EQ(stutterChanges.count(), 0);

    // As with the button, a shutter stopped leaves the picture live and Freeze's title.
    stutter->trigger();
    expect("Stutter off from the menu", {false, false, true, false, "Unfreeze", "Stutter", "Vistrel — frozen", true});

    // Changes made elsewhere: the controller's own actions (the buttons and the session
    // bus go through them).
    vc->toggleFreeze();
    expect("Freeze again elsewhere", {true, false, true, false, "Unfreeze", "Stutter", "Vistrel — frozen", true});
    vc->toggleFreeze();
    expect("Freeze off elsewhere", {false, false, false, false, "Freeze", "Stutter", "Vistrel", false});
    vc->toggleFreeze();
    vc->toggleShutter();
    expect("Freeze and Stutter elsewhere", {true, true, true, true, "Unfreeze", "Stop", "Vistrel — stuttering", true});
    vc->toggleFreeze();
    env.clock.advance(1.0);
    expect("Freeze off while stuttering", {true, true, false, true, "Freeze", "Stop", "Vistrel — stuttering", true});
    // The mark is the title: chosen in a frozen phase, Freeze releases the picture and
    // the button still reads "Freeze".
    freeze->trigger();
    expect("Freeze from the menu in a frozen phase",
           {false, true, false, true, "Freeze", "Stop", "Vistrel — stuttering", true});
    vc->toggleShutter();
    expect("all off", {false, false, false, false, "Freeze", "Stutter", "Vistrel", false});
}
