#include "app/AppDelegate.h"
#include "core/WindowPlacement.h"
#include "ui/MainWindowController.h"

#include "TestServices.h"

#include <QAbstractButton>
#include <QApplication>
#include <QMainWindow>
#include <QScreen>
#include <QSystemTrayIcon>
#include <QTest>
#include <gtest/gtest.h>

using namespace vistrel;

TEST(StatusItemPlacementTest, PlacesTheWindowBelowTheIconInsideTheScreen)
{
    const QRect screen(0, 32, 1920, 1048); // a 32 px panel at the top
    const struct
    {
        const char *name;
        QRect anchor;
        QSize window;
        std::optional<QRect> available;
        QPoint expected;
    } cases[] = {
        {"centred under an icon mid-screen", {900, 4, 24, 24}, {400, 300}, screen, {712, 34}},
        {"icon at the right edge keeps 8 px", {1890, 4, 24, 24}, {400, 300}, screen, {1920 - 8 - 400, 34}},
        {"wider than the screen: the left margin wins", {900, 4, 24, 24}, {1910, 300}, screen, {8, 34}},
        {"icon near the bottom: the window overlaps it",
         {900, 1050, 24, 24},
         {400, 300},
         screen,
         {712, 32 + 1048 - 8 - 300}},
        {"no screen: unclamped", {1890, 1050, 24, 24}, {400, 300}, std::nullopt, {1702, 1080}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(windowOriginBelowStatusItem(c.anchor, c.window, c.available), c.expected);
    }
}

// Toggling, debounce and resign-key with an offscreen window.
TEST(StatusItemTest, ClickTogglesTheWindowAndClicksSoonAfterAHideAreIgnored)
{
    test::TestServices env;
    struct Cleanup
    {
        ~Cleanup() { qDeleteAll(QApplication::topLevelWidgets()); }
    } cleanup;
    AppDelegate delegate(env.services);
    delegate.prepareMainWindow(); // the interface file's main window
    ASSERT_TRUE(delegate.mainWindowController());
    QWidget *window = delegate.mainWindowController()->window();
    const auto click = [&] { delegate.statusItemClicked(); };
    delegate.setupStatusItem();
    ASSERT_TRUE(delegate.statusItem());
    EXPECT_EQ(delegate.statusItem()->toolTip(), QStringLiteral("Vistrel"));
    EXPECT_FALSE(delegate.statusItem()->icon().isNull());

    click();
    ASSERT_TRUE(window->isVisible());
    EXPECT_EQ(env.application.activateCalls, 1);
    // The offscreen platform has no tray, so no icon geometry: centred on the screen.
    const QRect available = QGuiApplication::primaryScreen()->availableGeometry();
    EXPECT_LE((window->frameGeometry().center() - available.center()).manhattanLength(), 2);

    click();
    ASSERT_FALSE(window->isVisible());
    const double stamp = env.clock.current;
    env.clock.current = stamp + 0.2999;
    click();
    EXPECT_FALSE(window->isVisible());
    env.clock.current = stamp + 0.3; // exactly 0.3 s after the stamp, as the clock reads it
    click();
    EXPECT_TRUE(window->isVisible()) << "an ignored click moved the stamp";

    // Clicking the icon takes activation away from the window first, which hides it...
    QTest::qWait(50);
    ASSERT_TRUE(window->isActiveWindow());
    QWidget elsewhere;
    elsewhere.show();
    elsewhere.activateWindow();
    QTest::qWait(50);
    EXPECT_FALSE(window->isVisible());
    // ...and the click itself then falls inside the debounce: the window stays hidden.
    env.clock.advance(0.05);
    click();
    EXPECT_FALSE(window->isVisible());
}

// The window's own controls, on the real interface file. Onboarding is pending, so
// loading defers the camera link until "MainWindowShown".
TEST(MainInterfaceTest, FooterButtonsExitResetAndHideAndTheDeferredStartStopsObserving)
{
    test::TestServices env;
    struct Cleanup
    {
        ~Cleanup() { qDeleteAll(QApplication::topLevelWidgets()); }
    } cleanup;
    auto delegate = std::make_unique<AppDelegate>(env.services);
    delegate->prepareMainWindow();
    ASSERT_TRUE(delegate->mainWindowController());
    QWidget *window = delegate->mainWindowController()->window();
    const auto button = [&](const char *name) {
        auto *found = window->findChild<QAbstractButton *>(QLatin1String(name));
        EXPECT_NE(found, nullptr) << name;
        return found;
    };

    delegate->statusItemClicked();
    ASSERT_TRUE(window->isVisible());
    // Exit asks first; "Cancel" keeps the app, "Exit" ends it.
    env.alerts.answers = {1, 0};
    button("exitButton")->click();
    EXPECT_EQ(env.application.terminateCalls, 0);
    ASSERT_EQ(env.alerts.shown.size(), 1);
    const AlertSpec exit = env.alerts.shown.first();
    EXPECT_EQ(exit.title, QStringLiteral("Exit Vistrel"));
    EXPECT_EQ(exit.text, QStringLiteral("Are you sure you want to exit Vistrel?"));
    EXPECT_EQ(exit.style, AlertStyle::Warning);
    EXPECT_EQ(exit.buttons, (QStringList{QStringLiteral("Exit"), QStringLiteral("Cancel")}));
    button("exitButton")->click();
    EXPECT_EQ(env.application.terminateCalls, 1);

    // Reset clears only the completion flag.
    window->show(); // the alert may have taken activation and hidden it
    env.defaults->setBool(QStringLiteral("onboardingComplete"), true);
    env.defaults->setBool(QStringLiteral("extensionInstalled"), true);
    button("resetOnboardingButton")->click();
    EXPECT_FALSE(env.defaults->boolForKey(QStringLiteral("onboardingComplete")));
    EXPECT_TRUE(env.defaults->boolForKey(QStringLiteral("extensionInstalled")));
    ASSERT_EQ(env.alerts.shown.size(), 3); // connected once, however often the window is shown
    const AlertSpec reset = env.alerts.shown.last();
    EXPECT_EQ(reset.title, QStringLiteral("Onboarding Reset"));
    EXPECT_EQ(reset.text, QStringLiteral("Onboarding will be shown next time you launch the app."));
    EXPECT_EQ(reset.buttons, QStringList{QStringLiteral("OK")});

    window->show();
    button("hideButton")->click();
    EXPECT_FALSE(window->isVisible());

    EXPECT_EQ(env.notifications.observerCount(kMainWindowShown), 1);
    env.notifications.post(kMainWindowShown);
    QTest::qWait(0);
    EXPECT_EQ(env.notifications.observerCount(kMainWindowShown), 0);
}
