// The set-up view's rows, actions and refresh timer, and the
// window that hosts it, offscreen.
#include "app/TraceLog.h"
#include "onboarding/OnboardingCoordinator.h"
#include "onboarding/OnboardingView.h"
#include "sysext/CameraExtensionHelper.h"

#include "FakeExtensionManager.h"
#include "TestHome.h"
#include "TestServices.h"

#include <QLabel>
#include <QPushButton>
#include <QRegularExpression>
#include <QTest>
#include <QTimer>
#include <gtest/gtest.h>

using namespace vistrel;

namespace {

class OnboardingViewTest : public ::testing::Test
{
protected:
    void SetUp() override { env.services.extensionManager = &manager; }
    std::unique_ptr<OnboardingView> makeView()
    {
        auto view = std::make_unique<OnboardingView>(env.services, delegate, [this] { ++completions; });
        return view;
    }
    static QString description(StepRow *row) { return row->findChild<QLabel *>(QStringLiteral("description"))->text(); }
    int activeTimers(QObject *view)
    {
        int count = 0;
        for (QTimer *timer : view->findChildren<QTimer *>())
            count += timer->isActive() ? 1 : 0;
        return count;
    }

    test::TestServices env;
    test::FakeExtensionManager manager;
    std::shared_ptr<sysext::ExtensionRequestDelegate> delegate;
    int completions = 0;
};

} // namespace

TEST_F(OnboardingViewTest, RowsFollowTheFlagsAndFinishIsGreyUntilEverythingIsDone)
{
    env.cameraAuthorization.status = camera::Authorized;
    auto view = makeView();
    view->show();
    EXPECT_TRUE(view->cameraRow()->isDone());
    EXPECT_FALSE(view->extensionRow()->isDone());
    EXPECT_EQ(description(view->extensionRow()), QStringLiteral("Install the virtual camera system extension."));
    EXPECT_EQ(view->extensionRow()->badgeColor(), QColor(0x0a, 0x84, 0xff));
    EXPECT_EQ(view->cameraRow()->badgeColor(), QColor(0x34, 0xc7, 0x59));
    EXPECT_TRUE(view->extensionRow()->actionButton()->isVisible());
    EXPECT_EQ(view->extensionRow()->actionButton()->text(), QStringLiteral("Grant Access"));
    EXPECT_FALSE(view->cameraRow()->actionButton()->isVisible());
    EXPECT_FALSE(view->finishButton()->isEnabled());
    EXPECT_EQ(view->finishButton()->property("fillColor").value<QColor>(), QColor(0x8e, 0x8e, 0x93));

    // Installed but not enabled: the row's button opens the help page, without an alert.
    env.extensionProbes.installed = true;
    view->refreshExtensionState();
    EXPECT_EQ(description(view->extensionRow()), QStringLiteral("Enable the extension (see Camera Help)."));
    view->extensionRow()->actionButton()->click();
    EXPECT_EQ(env.urlOpener.opened, QList<QUrl>{sysext::CameraExtensionHelper::extensionSettingsUrl(env.services.bundle)});
    EXPECT_TRUE(env.alerts.shown.isEmpty());
    EXPECT_TRUE(manager.requests.empty());

    // The stored flag makes the extension done whatever the system says.
    env.extensionProbes.installed = false;
    env.defaults->setBool(QStringLiteral("extensionInstalled"), true);
    view->hide();
    view->show();
    EXPECT_TRUE(view->extensionRow()->isDone());
    EXPECT_TRUE(view->isSetupComplete());
    EXPECT_TRUE(view->finishButton()->isEnabled());
    EXPECT_NE(view->finishButton()->property("fillColor").value<QColor>(), QColor(0x8e, 0x8e, 0x93));

    view->finishButton()->click();
    EXPECT_TRUE(env.defaults->boolForKey(QStringLiteral("onboardingComplete")));
    EXPECT_EQ(completions, 1);
}

TEST_F(OnboardingViewTest, TheRefreshTimerRunsOnlyWhileShownAndPicksUpChanges)
{
    env.cameraAuthorization.status = camera::Denied;
    auto view = makeView();
    EXPECT_EQ(view->_extensionRefreshTimer, nullptr);
    view->show();
    ASSERT_NE(view->_extensionRefreshTimer, nullptr);
    EXPECT_EQ(view->_extensionRefreshTimer->interval(), 2000);
    view->startExtensionRefreshTimer();
    view->hide();
    EXPECT_EQ(view->_extensionRefreshTimer, nullptr);
    EXPECT_EQ(activeTimers(view.get()), 0);
    view->show();
    view->show();
    EXPECT_EQ(activeTimers(view.get()), 1) << "never two at once";

    // A change made elsewhere shows at the next tick.
    EXPECT_FALSE(view->cameraRow()->isDone());
    env.cameraAuthorization.status = camera::Authorized;
    env.extensionProbes.installed = true;
    env.extensionProbes.activated = true;
    QTest::qWait(1500);
    EXPECT_FALSE(view->cameraRow()->isDone()) << "not before the tick";
    QTRY_VERIFY_WITH_TIMEOUT(view->cameraRow()->isDone(), 2000);
    EXPECT_TRUE(view->extensionRow()->isDone());
    EXPECT_TRUE(view->finishButton()->isEnabled());
}

TEST_F(OnboardingViewTest, InstallingAsksFirstAndEachConfirmedRequestAddsAnObserver)
{
    struct SilentDelegate final : sysext::ExtensionRequestDelegate
    {
        int actionForReplacingExtension(const QString &, const QString &) override { return sysext::Replace; }
        void requestNeedsUserApproval() override {}
        void requestDidFinishWithResult(int) override {}
        void requestDidFailWithError(const sysext::ExtensionRequestError &) override {}
    };
    delegate = std::make_shared<SilentDelegate>();
    env.cameraAuthorization.status = camera::NotDetermined;
    auto view = makeView();
    view->show();

    env.alerts.answers = {1}; // Cancel
    view->extensionRow()->actionButton()->click();
    ASSERT_EQ(env.alerts.shown.size(), 1);
    EXPECT_EQ(env.alerts.shown[0].title, QStringLiteral("Install Vistrel Camera Extension"));
    EXPECT_EQ(env.alerts.shown[0].text, QStringLiteral("Vistrel will now install a system extension to provide you with the "
                                                       "Vistrel camera functionality. This will require administrator privileges."));
    EXPECT_EQ(env.alerts.shown[0].buttons, (QStringList{QStringLiteral("Continue"), QStringLiteral("Cancel")}));
    EXPECT_TRUE(manager.requests.empty());
    EXPECT_EQ(env.notifications.observerCount(kExtensionInstallationComplete), 0);

    view->extensionRow()->actionButton()->click();
    view->extensionRow()->actionButton()->click();
    ASSERT_EQ(manager.requests.size(), 2u);
    EXPECT_EQ(manager.requests[0].kind, sysext::RequestKind::Activation);
    EXPECT_EQ(manager.requests[0].identifier, QStringLiteral("app.vistrel.Vistrel.cameraextension"));
    EXPECT_EQ(manager.requests[0].delegate, delegate) << "answers go to the application delegate";
    EXPECT_EQ(env.notifications.observerCount(kExtensionInstallationComplete), 2);

    // The application delegate stores the flag, then posts.
    env.defaults->setBool(QStringLiteral("extensionInstalled"), true);
    env.notifications.post(kExtensionInstallationComplete);
    QTRY_VERIFY(view->extensionRow()->isDone());
    EXPECT_TRUE(view->_extensionInstalled);

    // The camera row asks; the answer is applied on the main thread.
    env.cameraAuthorization.status = camera::Authorized;
    view->cameraRow()->actionButton()->click();
    QTRY_VERIFY(view->cameraRow()->isDone());
}

TEST(OnboardingWindowTest, TheWindowIsFixedTracedAndReplacedAndCompletionClosesIt)
{
    QFile::remove(traceLogPath());
    test::TestServices env;
    int completed = 0;
    OnboardingCoordinator::shared().showOnboarding(env.services, nullptr, [&] { ++completed; });
    OnboardingWindowController *first = onboardingWindowController();
    ASSERT_NE(first, nullptr);
    QWidget *window = first->window();
    EXPECT_EQ(window->windowTitle(), QStringLiteral("Welcome to Vistrel"));
    EXPECT_EQ(window->minimumSize(), QSize(600, 640));
    EXPECT_EQ(window->maximumSize(), QSize(600, 640));
    EXPECT_TRUE(window->isVisible());
    EXPECT_EQ(env.application.activateCalls, 1);

    const QStringList trace = QString::fromUtf8(test::readFile(traceLogPath())).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    ASSERT_EQ(trace.size(), 2);
    EXPECT_TRUE(trace[0].endsWith(QStringLiteral("] showOnboarding called")));
    EXPECT_TRUE(trace[1].contains(QRegularExpression(QStringLiteral(
        R"(\] onboarding window shown — frame=\(-?\d+\.0, -?\d+\.0, 600\.0, 640\.0\) isVisible=true screen=Optional\(QScreen\(0x[0-9a-f]+\)\)$)"))))
        << trace[1].toStdString();

    // A second window replaces the controller; the first window stays up.
    OnboardingCoordinator::shared().showOnboarding(env.services, nullptr, [&] { completed += 10; });
    QWidget *second = onboardingWindowController()->window();
    EXPECT_NE(second, window);
    EXPECT_TRUE(window->isVisible());

    // Finishing closes the current window, clears the controller, runs the completion.
    env.cameraAuthorization.status = camera::Authorized;
    env.defaults->setBool(QStringLiteral("extensionInstalled"), true);
    auto *view = second->findChild<OnboardingView *>();
    ASSERT_NE(view, nullptr);
    view->refreshExtensionState();
    view->_cameraPermissionGranted = true;
    view->finishOnboarding();
    EXPECT_FALSE(second->isVisible());
    EXPECT_EQ(onboardingWindowController(), nullptr);
    EXPECT_EQ(completed, 10);

    // With no controller left, completion still runs.
    view->onComplete();
    EXPECT_EQ(completed, 20);
    delete window;
    delete second;
}
