#pragma once
#include "core/Services.h"

#include <QObject>
#include <QPointer>
#include <QWidget>
#include <functional>
#include <memory>

class QWidget;

namespace vistrel {
namespace sysext {
class ExtensionRequestDelegate;
}

// The owner of the onboarding window; nothing of its own beyond that.
class OnboardingWindowController final : public QObject
{
    Q_OBJECT
public:
    explicit OnboardingWindowController(QWidget *window) : m_window(window) {}
    QWidget *window() const { return m_window; }
    void showWindow();

private:
    QPointer<QWidget> m_window;
};

// The one live onboarding window controller, if any.
OnboardingWindowController *onboardingWindowController();

// Puts the set-up screen on the display. No state of its own.
class OnboardingCoordinator
{
public:
    static OnboardingCoordinator &shared();

    // Builds the fixed 600 × 640 "Welcome to Vistrel" window around the set-up view and
    // brings it to the front. `completion` runs when the user finishes (after the
    // window has closed); the activation request the view submits answers to
    // `requestDelegate`.
    void showOnboarding(const Services &services, std::shared_ptr<sysext::ExtensionRequestDelegate> requestDelegate,
                        std::function<void()> completion);
};

} // namespace vistrel
