// The set-up view's rows, actions and refresh timer, and the
// window that hosts it, offscreen.
#include "app/AppDelegate.h"
#include "app/SingleInstance.h"
#include "core/TraceLog.h"
#include "onboarding/OnboardingCoordinator.h"
#include "onboarding/OnboardingView.h"
#include "sysext/CameraExtensionHelper.h"

#include "FakeExtensionManager.h"
#include "TestHome.h"
#include "TestServices.h"

#include <QApplication>
#include <QLabel>
#include <QPushButton>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <gtest/gtest.h>

using namespace vistrel;

namespace {

QString description(StepRow *row)
{
    return row->findChild<QLabel *>(QStringLiteral("description"))->text();
}
QColor fill(QPushButton *button)
{
    return button->property("fillColor").value<QColor>();
}
const QColor kGrey(0x8e, 0x8e, 0x93);

} // namespace

TEST(OnboardingViewTest, RowsActionsAndTheRefreshTimerFollowTheFlagsAndFinishIsGreyUntilEverythingIsDone)
{
    test::TestServices env;
    test::FakeExtensionManager manager;
    env.services.extensionManager = &manager;
    env.services.timers = &env.clock;
    const auto delegate = sysext::delegateFor<AppDelegate>(nullptr); // answers go nowhere
    int completions = 0;
    env.cameraAuthorization.status = camera::NotDetermined;
    OnboardingView view(env.services, delegate, [&] { ++completions; });
    const auto timers = [&] { return env.clock.runningTimers(std::chrono::seconds(2)); };
    EXPECT_EQ(timers(), 0);
    view.show();
    QPushButton *install = view.extensionRow()->actionButton();
    EXPECT_EQ(description(view.extensionRow()), QStringLiteral("Install the virtual camera system extension."));
    EXPECT_TRUE(install->isVisible());
    EXPECT_EQ(install->text(), QStringLiteral("Grant Access"));
    EXPECT_FALSE(view.finishButton()->isEnabled());
    EXPECT_EQ(fill(view.finishButton()), kGrey);

    // Installing asks first; Cancel submits nothing.
    env.alerts.answers = {1};
    install->click();
    ASSERT_EQ(env.alerts.shown.size(), 1);
    EXPECT_EQ(env.alerts.shown[0].title, QStringLiteral("Install Vistrel Camera Extension"));
    EXPECT_EQ(env.alerts.shown[0].text,
              QStringLiteral("Vistrel will now install a system extension to provide you with the "
                             "Vistrel camera functionality. This will require administrator privileges."));
    EXPECT_EQ(env.alerts.shown[0].buttons, (QStringList{QStringLiteral("Continue"), QStringLiteral("Cancel")}));
    EXPECT_TRUE(manager.requests.empty());

    // A change made while shown appears at the next tick, two seconds on. Installed but
    // not enabled: the button then opens the help page, without an alert.
    env.extensionProbes.installed = true;
    env.clock.advance(1.0);
    view.startExtensionRefreshTimer(); // starts the two seconds again: never two timers at once
    EXPECT_EQ(timers(), 1);
    env.clock.advance(1.5);
    EXPECT_EQ(description(view.extensionRow()), QStringLiteral("Install the virtual camera system extension."))
        << "not before the tick";
    env.clock.advance(0.5);
    EXPECT_EQ(description(view.extensionRow()), QStringLiteral("Enable the extension (see Camera Help)."));
    install->click();
    EXPECT_EQ(env.urlOpener.opened,
              QList<QUrl>{sysext::CameraExtensionHelper::extensionSettingsUrl(env.services.bundle)});
    EXPECT_EQ(env.alerts.shown.size(), 1);

    // Hiding stops the timer; a change made while hidden is picked up on showing.
    view.hide();
    EXPECT_EQ(timers(), 0);
    env.extensionProbes.installed = false;
    view.show();
    EXPECT_EQ(description(view.extensionRow()), QStringLiteral("Install the virtual camera system extension."));
    view.stopExtensionRefreshTimer(); // from here on only the actions may mark the rows

    // Each confirmed install submits a request.
    install->click();
    install->click();
    ASSERT_EQ(manager.requests.size(), 2u);
    EXPECT_EQ(manager.requests[0].kind, sysext::RequestKind::Activation);
    EXPECT_EQ(manager.requests[0].identifier, QStringLiteral("app.vistrel.Vistrel.cameraextension"));
    EXPECT_EQ(manager.requests[0].delegate, delegate) << "answers go to the application delegate";

    // The application delegate stores the flag, then posts; the flag wins over the probes.
    env.defaults->setBool(QStringLiteral("extensionInstalled"), true);
    env.notifications.post(kExtensionInstallationComplete);
    EXPECT_TRUE(QTest::qWaitFor([&] { return view.extensionRow()->isDone(); }));

    // The camera row asks; the answer is applied on the main thread.
    env.cameraAuthorization.status = camera::Authorized;
    view.cameraRow()->actionButton()->click();
    EXPECT_TRUE(QTest::qWaitFor([&] { return view.cameraRow()->isDone(); }));
    EXPECT_TRUE(view.finishButton()->isEnabled());
    EXPECT_NE(fill(view.finishButton()), kGrey);

    view.finishButton()->click();
    EXPECT_TRUE(env.defaults->boolForKey(QStringLiteral("onboardingComplete")));
    EXPECT_EQ(completions, 1);
}

TEST(OnboardingWindowTest, TheWindowIsFixedTracedAndReplacedAndCompletionClosesIt)
{
    QFile::remove(traceLogPath());
    test::TestServices env;
    int completed = 0;
    OnboardingCoordinator::shared().showOnboarding(env.services, nullptr, [&] { ++completed; });
    ASSERT_NE(onboardingWindowController(), nullptr);
    std::unique_ptr<QWidget> first(onboardingWindowController()->window());
    EXPECT_EQ(first->windowTitle(), QStringLiteral("Welcome to Vistrel"));
    EXPECT_EQ(first->minimumSize(), first->maximumSize()) << "the window must not be resizable";
    EXPECT_EQ(env.application.activateCalls, 1);
    EXPECT_TRUE(
        QString::fromUtf8(test::readFile(traceLogPath()))
            .contains(QRegularExpression(QStringLiteral(
                R"(^\[[^\]]+\] showOnboarding called\n\[[^\]]+\] onboarding window shown — frame=\(-?\d+\.0, -?\d+\.0, 600\.0, 640\.0\) isVisible=true screen=Optional\(QScreen\(0x[0-9a-f]+\)\)\n$)"))))
        << test::readFile(traceLogPath()).constData();

    // A second window replaces the controller; the first window stays up.
    OnboardingCoordinator::shared().showOnboarding(env.services, nullptr, [&] { completed += 10; });
    std::unique_ptr<QWidget> second(onboardingWindowController()->window());
    EXPECT_TRUE(first->isVisible());

    // Finishing closes the current window, clears the controller, runs the completion.
    auto *view = second->findChild<OnboardingView *>();
    ASSERT_NE(view, nullptr);
    view->finishOnboarding();
    EXPECT_FALSE(second->isVisible());
    EXPECT_EQ(onboardingWindowController(), nullptr);
    EXPECT_EQ(completed, 10);

    // With no controller left, completion still runs.
    view->onComplete();
    EXPECT_EQ(completed, 20);
}

// Closing the set-up window with its close button neither finishes nor quits: the app
// keeps running (an extension installation may still answer), and launching it again
// brings the window back, as it does for a window that is merely behind others.
TEST(OnboardingWindowTest, ClosingTheWindowKeepsTheAppAndASecondLaunchShowsItAgain)
{
    test::TestServices env; // nothing set up yet: the onboarding path
    AppDelegate delegate(env.services);
    env.application.onTerminate = [&] { delegate.applicationWillTerminate(); };
    QTemporaryDir runtime;
    const QString key = runtime.filePath(QStringLiteral("instance"));
    SingleInstance claim(key);
    ASSERT_TRUE(claim.listen());
    QObject::connect(&claim, &SingleInstance::activationRequested, &delegate,
                     &AppDelegate::applicationShouldHandleReopen);

    delegate.applicationDidFinishLaunching();
    ASSERT_TRUE(delegate.isOnboardingInProgress());
    ASSERT_NE(onboardingWindowController(), nullptr);
    std::unique_ptr<QWidget> window(onboardingWindowController()->window());
    ASSERT_TRUE(window->isVisible());

    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round);
        EXPECT_TRUE(window->close()) << "the close button is honoured";
        EXPECT_FALSE(window->isVisible());
        EXPECT_EQ(env.application.terminateCalls, 0);
        EXPECT_FALSE(env.defaults->hasKey(QStringLiteral("onboardingComplete")));
        EXPECT_EQ(onboardingWindowController()->window(), window.get());

        const int activations = env.application.activateCalls;
        ASSERT_TRUE(SingleInstance(key).notifyRunningInstance());
        // (QTRY_* report to QtTest, not to this runner: a timeout would go unnoticed.)
        EXPECT_TRUE(QTest::qWaitFor([&] { return window->isVisible(); }, 5000));
        EXPECT_GT(env.application.activateCalls, activations);
        EXPECT_EQ(QApplication::topLevelWidgets().count(window.get()), 1) << "the same window, not a new one";
    }
}
