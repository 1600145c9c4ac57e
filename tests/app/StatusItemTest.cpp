#include "app/AppDelegate.h"
#include "app/MainWindowController.h"
#include "app/NotificationCenter.h"
#include "app/WindowPlacement.h"
#include "camera/ViewController.h"

#include "ConsoleCapture.h"
#include "TestServices.h"

#include <QAbstractButton>
#include <QApplication>
#include <QMainWindow>
#include <QScreen>
#include <QSystemTrayIcon>
#include <QTemporaryDir>
#include <QTest>
#include <gtest/gtest.h>

using namespace vistrel;

// ---- Placement below the icon, as geometry ----

namespace {

struct PlacementCase
{
    const char *name;
    QRect anchor;
    QSize window;
    std::optional<QRect> available;
    QPoint expected;
};

const QRect kScreen(0, 32, 1920, 1048); // a 32 px panel at the top

const PlacementCase kPlacements[] = {
    {"centred under an icon mid-screen", {900, 4, 24, 24}, {400, 300}, kScreen, {712, 34}},
    {"icon at the right edge keeps 8 px", {1890, 4, 24, 24}, {400, 300}, kScreen, {1920 - 8 - 400, 34}},
    {"icon at the left edge keeps 8 px", {0, 4, 24, 24}, {400, 300}, kScreen, {8, 34}},
    {"wider than the screen: the left margin wins", {900, 4, 24, 24}, {1910, 300}, kScreen, {8, 34}},
    {"icon near the bottom: the window overlaps it", {900, 1050, 24, 24}, {400, 300}, kScreen,
     {712, 32 + 1048 - 8 - 300}},
    {"no clamp at the top", {900, -200, 24, 24}, {400, 300}, kScreen, {712, -170}},
    {"second screen to the right", {2500, 0, 22, 22}, {400, 300}, QRect(1920, 0, 1280, 1024), {2311, 28}},
    {"no screen: unclamped", {1890, 1050, 24, 24}, {400, 300}, std::nullopt, {1702, 1080}},
};

} // namespace

TEST(StatusItemPlacementTest, PlacesTheWindowBelowTheIconInsideTheScreen)
{
    for (const PlacementCase &c : kPlacements) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(windowOriginBelowStatusItem(c.anchor, c.window, c.available), c.expected);
    }
}

// ---- Toggling, debounce and resign-key with an offscreen window ----

namespace {

class StatusItemTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        delegate = std::make_unique<AppDelegate>(env.services);
        window = new QMainWindow;
        window->resize(420, 300);
        delegate->mainWindowController = new MainWindowController(window, nullptr, window);
        delegate->prepareMainWindow();
    }
    void TearDown() override
    {
        delegate.reset();
        qDeleteAll(QApplication::topLevelWidgets());
    }

    void click() { delegate->statusItemClicked(); }
    bool shown() const { return window->isVisible(); }
    // Lets the window system deliver activation changes.
    static void settle() { QTest::qWait(50); }

    test::TestServices env;
    std::unique_ptr<AppDelegate> delegate;
    QMainWindow *window = nullptr;
};

} // namespace

TEST_F(StatusItemTest, ClickShowsCentredWithoutTrayGeometryAndASecondClickHides)
{
    delegate->setupStatusItem();
    ASSERT_TRUE(delegate->statusItem);
    EXPECT_EQ(delegate->statusItem->toolTip(), QStringLiteral("Vistrel"));
    EXPECT_EQ(delegate->statusItem->contextMenu(), nullptr);
    EXPECT_FALSE(delegate->statusItem->icon().isNull());
    EXPECT_FALSE(shown());

    click();
    ASSERT_TRUE(shown());
    EXPECT_EQ(env.application.activateCalls, 1);
    // The offscreen platform has no tray, so no icon geometry: centred on the screen.
    const QRect available = QGuiApplication::primaryScreen()->availableGeometry();
    EXPECT_NEAR(window->frameGeometry().center().x(), available.center().x(), 1);
    EXPECT_NEAR(window->frameGeometry().center().y(), available.center().y(), 1);

    env.clock.advance(5);
    click();
    EXPECT_FALSE(shown());
    EXPECT_DOUBLE_EQ(delegate->popupHideTimestamp, env.clock.current);
}

TEST_F(StatusItemTest, ClicksWithinThreeTenthsOfASecondOfAHideAreIgnored)
{
    click();
    ASSERT_TRUE(shown());
    click(); // hides and stamps
    ASSERT_FALSE(shown());

    const double stamp = env.clock.current;
    env.clock.current = stamp + 0.2;
    click();
    EXPECT_FALSE(shown());
    env.clock.current = stamp + 0.2999;
    click();
    EXPECT_FALSE(shown());
    env.clock.current = stamp + 0.3; // exactly 0.3 s after the stamp, as the clock reads it
    click();
    EXPECT_TRUE(shown());
    // Ignored clicks did not move the stamp.
    EXPECT_EQ(delegate->popupHideTimestamp, stamp);
}

TEST_F(StatusItemTest, LosingActivationHidesTheWindowAndTheCausingClickIsIgnored)
{
    click();
    settle();
    ASSERT_TRUE(window->isActiveWindow());

    // Clicking the icon takes activation away from the window first...
    QWidget elsewhere;
    elsewhere.show();
    elsewhere.activateWindow();
    settle();
    EXPECT_FALSE(shown());
    EXPECT_DOUBLE_EQ(delegate->popupHideTimestamp, env.clock.current);
    // ...and the click itself then falls inside the debounce: the window stays hidden.
    env.clock.advance(0.05);
    click();
    EXPECT_FALSE(shown());
}

TEST_F(StatusItemTest, ResetOnboardingClearsOnlyTheCompletionFlag)
{
    env.defaults->setBool(QStringLiteral("onboardingComplete"), true);
    env.defaults->setBool(QStringLiteral("extensionInstalled"), true);
    env.defaults->setInteger(QStringLiteral("updateCheckerDismissedBuild"), 121);
    click();

    delegate->resetOnboarding();
    EXPECT_FALSE(env.defaults->boolForKey(QStringLiteral("onboardingComplete")));
    EXPECT_TRUE(env.defaults->boolForKey(QStringLiteral("extensionInstalled")));
    EXPECT_EQ(env.defaults->integerForKey(QStringLiteral("updateCheckerDismissedBuild")), 121);
    ASSERT_EQ(env.alerts.shown.size(), 1);
    const AlertSpec alert = env.alerts.shown.first();
    EXPECT_EQ(alert.title, QStringLiteral("Onboarding Reset"));
    EXPECT_EQ(alert.text, QStringLiteral("Onboarding will be shown next time you launch the app."));
    EXPECT_EQ(alert.style, AlertStyle::Informational);
    EXPECT_EQ(alert.buttons, QStringList{QStringLiteral("OK")});

    // The next launch's decision sees the reset; this instance keeps its window.
    AppDelegate nextLaunch(env.services);
    nextLaunch.applicationDidFinishLaunching();
    EXPECT_TRUE(nextLaunch.needsOnboarding);
    EXPECT_TRUE(delegate->mainWindowController);
}

TEST(StatusItemFallbackTest, WithoutAMainWindowEachClickShowsAFreshFallbackWindow)
{
    QTemporaryDir emptyShare;
    test::TestServices env(emptyShare.path());
    AppDelegate delegate(env.services);
    delegate.statusItemClicked();
    QPointer<QWidget> first = fallbackWindow();
    ASSERT_TRUE(first);
    EXPECT_TRUE(first->isVisible());

    env.clock.advance(1);
    delegate.statusItemClicked();
    QPointer<QWidget> second = fallbackWindow();
    ASSERT_TRUE(second);
    EXPECT_NE(second.data(), first.data());
    EXPECT_TRUE(second->isVisible()); // never hidden by a click
    EXPECT_FALSE(first);               // the previous one was replaced
    delete second.data();
}

// ---- The window's own controls, on the real interface file ----

namespace {

class MainInterfaceTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        // Onboarding is pending, so loading defers the camera link until "MainWindowShown".
        delegate = std::make_unique<AppDelegate>(env.services);
        delegate->prepareMainWindow();
        ASSERT_TRUE(delegate->mainWindowController);
        window = delegate->mainWindowController->window();
        vc = delegate->mainWindowController->contentViewController();
        ASSERT_TRUE(window && vc);
    }
    void TearDown() override
    {
        delegate.reset();
        qDeleteAll(QApplication::topLevelWidgets());
    }

    QAbstractButton *button(const char *name) const
    {
        auto *found = window->findChild<QAbstractButton *>(QLatin1String(name));
        EXPECT_NE(found, nullptr) << name;
        return found;
    }

    test::TestServices env;
    std::unique_ptr<AppDelegate> delegate;
    QWidget *window = nullptr;
    ViewController *vc = nullptr;
};

} // namespace

TEST_F(MainInterfaceTest, FooterButtonsHideExitAndReset)
{
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

    window->show(); // the alert may have taken activation and hidden it
    env.defaults->setBool(QStringLiteral("onboardingComplete"), true);
    button("resetOnboardingButton")->click();
    EXPECT_FALSE(env.defaults->boolForKey(QStringLiteral("onboardingComplete")));
    EXPECT_EQ(env.alerts.shown.last().title, QStringLiteral("Onboarding Reset"));
    EXPECT_EQ(env.alerts.shown.size(), 3); // connected once, however often the window is shown

    window->show();
    button("hideButton")->click();
    EXPECT_FALSE(window->isVisible());
}

TEST_F(MainInterfaceTest, MainWindowShownRunsTheDeferredStartOnceAndStopsObserving)
{
    ASSERT_EQ(env.notifications.observerCount(kMainWindowShown), 1);
    env.notifications.post(kMainWindowShown);
    QTest::qWait(0);
    EXPECT_EQ(env.notifications.observerCount(kMainWindowShown), 0);
}
