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
        return std::make_unique<OnboardingView>(env.services, delegate, [this] { ++completions; });
    }
    static QString description(StepRow *row) { return row->findChild<QLabel *>(QStringLiteral("description"))->text(); }
    static QColor fill(QPushButton *button) { return button->property("fillColor").value<QColor>(); }

    test::TestServices env;
    test::FakeExtensionManager manager;
    std::shared_ptr<sysext::ExtensionRequestDelegate> delegate;
    int completions = 0;
};

const QColor kGrey(0x8e, 0x8e, 0x93);

} // namespace

TEST_F(OnboardingViewTest, RowsAndActionsFollowTheFlagsAndFinishIsGreyUntilEverythingIsDone)
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
    QPushButton *install = view->extensionRow()->actionButton();
    EXPECT_FALSE(view->extensionRow()->isDone());
    EXPECT_EQ(description(view->extensionRow()), QStringLiteral("Install the virtual camera system extension."));
    EXPECT_TRUE(install->isVisible());
    EXPECT_EQ(install->text(), QStringLiteral("Grant Access"));
    EXPECT_FALSE(view->finishButton()->isEnabled());
    EXPECT_EQ(fill(view->finishButton()), kGrey);

    // Installing asks first; Cancel submits nothing.
    env.alerts.answers = {1};
    install->click();
    ASSERT_EQ(env.alerts.shown.size(), 1);
    EXPECT_EQ(env.alerts.shown[0].title, QStringLiteral("Install Vistrel Camera Extension"));
    EXPECT_EQ(env.alerts.shown[0].text, QStringLiteral("Vistrel will now install a system extension to provide you with the "
                                                       "Vistrel camera functionality. This will require administrator privileges."));
    EXPECT_EQ(env.alerts.shown[0].buttons, (QStringList{QStringLiteral("Continue"), QStringLiteral("Cancel")}));
    EXPECT_TRUE(manager.requests.empty());

    // Installed but not enabled: the button opens the help page, without an alert.
    env.extensionProbes.installed = true;
    view->refreshExtensionState();
    EXPECT_EQ(description(view->extensionRow()), QStringLiteral("Enable the extension (see Camera Help)."));
    install->click();
    EXPECT_EQ(env.urlOpener.opened, QList<QUrl>{sysext::CameraExtensionHelper::extensionSettingsUrl(env.services.bundle)});
    EXPECT_EQ(env.alerts.shown.size(), 1);
    EXPECT_TRUE(manager.requests.empty());

    // Each confirmed install submits a request and adds its own observer.
    env.extensionProbes.installed = false;
    view->refreshExtensionState();
    install->click();
    install->click();
    ASSERT_EQ(manager.requests.size(), 2u);
    EXPECT_EQ(manager.requests[0].kind, sysext::RequestKind::Activation);
    EXPECT_EQ(manager.requests[0].identifier, QStringLiteral("app.vistrel.Vistrel.cameraextension"));
    EXPECT_EQ(manager.requests[0].delegate, delegate) << "answers go to the application delegate";
    EXPECT_EQ(env.notifications.observerCount(kExtensionInstallationComplete), 2);

    // The application delegate stores the flag, then posts; the flag wins over the probes.
    env.defaults->setBool(QStringLiteral("extensionInstalled"), true);
    env.notifications.post(kExtensionInstallationComplete);
    QTRY_VERIFY(view->extensionRow()->isDone());

    // The camera row asks; the answer is applied on the main thread.
    env.cameraAuthorization.status = camera::Authorized;
    view->cameraRow()->actionButton()->click();
    QTRY_VERIFY(view->cameraRow()->isDone());
    EXPECT_FALSE(view->cameraRow()->actionButton()->isVisible());
    EXPECT_TRUE(view->finishButton()->isEnabled());
    EXPECT_NE(fill(view->finishButton()), kGrey);

    view->finishButton()->click();
    EXPECT_TRUE(env.defaults->boolForKey(QStringLiteral("onboardingComplete")));
    EXPECT_EQ(completions, 1);
}

TEST_F(OnboardingViewTest, TheRefreshTimerRunsOnlyWhileShownAndPicksUpChanges)
{
    env.cameraAuthorization.status = camera::Denied;
    auto view = makeView();
    const auto activeTimers = [&] {
        int count = 0;
        for (QTimer *timer : view->findChildren<QTimer *>())
            count += timer->isActive() ? 1 : 0;
        return count;
    };
    EXPECT_EQ(activeTimers(), 0);
    env.extensionProbes.installed = true; // made before showing: picked up on show
    env.extensionProbes.activated = true;
    view->show();
    EXPECT_TRUE(view->extensionRow()->isDone());
    view->startExtensionRefreshTimer();
    view->hide();
    EXPECT_EQ(activeTimers(), 0);
    view->show();
    view->show();
    EXPECT_EQ(activeTimers(), 1) << "never two at once";

    // A change made while shown appears at the next tick, two seconds on.
    env.cameraAuthorization.status = camera::Authorized;
    QTest::qWait(1500);
    EXPECT_FALSE(view->cameraRow()->isDone()) << "not before the tick";
    QTRY_VERIFY_WITH_TIMEOUT(view->cameraRow()->isDone(), 2000);
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
    EXPECT_TRUE(first->isVisible());
    EXPECT_EQ(env.application.activateCalls, 1);
    EXPECT_TRUE(QString::fromUtf8(test::readFile(traceLogPath())).contains(QRegularExpression(QStringLiteral(
        R"(^\[[^\]]+\] showOnboarding called\n\[[^\]]+\] onboarding window shown — frame=\(-?\d+\.0, -?\d+\.0, 600\.0, 640\.0\) isVisible=true screen=Optional\(QScreen\(0x[0-9a-f]+\)\)\n$)"))))
        << test::readFile(traceLogPath()).constData();

    // A second window replaces the controller; the first window stays up.
    OnboardingCoordinator::shared().showOnboarding(env.services, nullptr, [&] { completed += 10; });
    std::unique_ptr<QWidget> second(onboardingWindowController()->window());
    EXPECT_NE(second.get(), first.get());
    EXPECT_TRUE(first->isVisible());

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
}
