#include "onboarding/OnboardingCoordinator.h"

#include "core/Platform.h"
#include "core/TraceLog.h"
#include "core/WindowPlacement.h"
#include "onboarding/OnboardingView.h"

#include <QScreen>
#include <QVBoxLayout>
#include <QWidget>

namespace vistrel {
namespace {

std::unique_ptr<OnboardingWindowController> &controllerSlot()
{
    static std::unique_ptr<OnboardingWindowController> controller;
    return controller;
}

} // namespace

OnboardingWindowController *onboardingWindowController()
{
    return controllerSlot().get();
}

void OnboardingWindowController::showWindow()
{
    if (m_window)
        m_window->show();
}

OnboardingCoordinator &OnboardingCoordinator::shared()
{
    static OnboardingCoordinator coordinator;
    return coordinator;
}

void OnboardingCoordinator::showOnboarding(const Services &services,
                                           std::shared_ptr<sysext::ExtensionRequestDelegate> requestDelegate,
                                           std::function<void()> completion)
{
    traceLog(QStringLiteral("showOnboarding called"));

    // Titled, closable, minimisable; not resizable. Closing only hides it (it is not
    // deleted), and closing it does not complete onboarding. The app keeps running rather
    // than quitting as "Exit" does, because an extension installation may be under way
    // (its answer stores the extension record and relaunches the app); a second launch
    // shows the window again (AppDelegate::applicationShouldHandleReopen), and quitting
    // or logging out later resets the completion flag as any termination does.
    auto *window = new QWidget(nullptr,
                               Qt::Window | Qt::CustomizeWindowHint | Qt::WindowTitleHint | Qt::WindowCloseButtonHint
                                   | Qt::WindowMinimizeButtonHint);
    window->setObjectName(QStringLiteral("onboardingWindow"));
    window->setWindowTitle(QStringLiteral("Welcome to Vistrel"));
    window->setFixedSize(600, 640);

    auto onComplete = [completion] {
        if (OnboardingWindowController *controller = onboardingWindowController()) {
            if (QWidget *shown = controller->window())
                shown->close();
        }
        controllerSlot().reset();
        if (completion)
            completion();
    };
    auto *view = new OnboardingView(services, std::move(requestDelegate), onComplete);
    view->setFixedSize(600, 640);
    auto *layout = new QVBoxLayout(window);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(view, 0, Qt::AlignCenter);

    centerWindowOnScreen(window);
    // Replacing the controller releases the previous one; its window stays as it is.
    controllerSlot() = std::make_unique<OnboardingWindowController>(window);

    services.application->activateIgnoringOtherApps();
    controllerSlot()->showWindow();
    window->raise();
    window->activateWindow();

    traceLog(QStringLiteral("onboarding window shown — frame=") + describeFrame(window->geometry())
             + QStringLiteral(" isVisible=") + (window->isVisible() ? QStringLiteral("true") : QStringLiteral("false"))
             + QStringLiteral(" screen=") + describeOptional(window->screen()));
}

} // namespace vistrel
