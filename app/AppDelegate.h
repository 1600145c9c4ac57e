#pragma once
#include "app/SingleInstance.h"
#include "core/Services.h"

#include <QObject>
#include <QPointer>
#include <limits>
#include <memory>

class QSystemTrayIcon;
class QWidget;

namespace vistrel {
class MainWindowController;
class StatusMenu;
class ViewController;
namespace sysext {
struct ExtensionRequestError;
}

// The application delegate: the launch decision, the main window, the status item,
// relaunch and termination. Lives for the whole process.
class AppDelegate : public QObject
{
    Q_OBJECT
public:
    explicit AppDelegate(const Services &services, QObject *parent = nullptr);
    ~AppDelegate() override;

    // Answers to the extension request that onboarding submits.
    int actionForReplacingExtension(const QString &existingVersion, const QString &newVersion);
    void requestNeedsUserApproval();
    void requestDidFinishWithResult(int result);
    void requestDidFailWithError(const sysext::ExtensionRequestError &error);

    bool applicationSupportsSecureRestorableState() const { return true; }
    void applicationDidFinishLaunching();
    void statusItemClicked();
    void windowDidResignKey(QWidget *sender);
    void resetOnboarding();
    void applicationWillTerminate();

    void prepareMainWindow();
    void setupStatusItem();
    void positionWindowBelowStatusItem(QWidget *window);
    void showInfoAlert(const QString &title, const QString &text);
    void restartApp();
    void onboardingCompleted();
    // A second launch of the app asked this one to show itself.
    void applicationShouldHandleReopen();
    // Shows the main window where the status item would, and brings the app forward.
    void showMainWindowBelowStatusItem();
    // The claim to be the one running instance, released before a relaunch.
    void setSingleInstance(SingleInstance *instance) { m_singleInstance = instance; }

    QSystemTrayIcon *statusItem() const { return m_statusItem.get(); }
    MainWindowController *mainWindowController() const;
    bool isOnboardingInProgress() const { return m_onboardingInProgress; }

    const Services &services() const { return m_services; }

Q_SIGNALS:
    // The main window is ready (hidden) with `controller` as its content.
    void mainWindowPrepared(ViewController *controller);

private:
    void toggleMainWindowFromStatusItem();
    // Shows the main window below the status item, preparing it first when there is none.
    void prepareAndShowMainWindow();
    void startUpdateCheck();
    void showOnboardingWindow();
    void showSettingsAlert(const QString &title, const QString &text);
    void handleInstallResult(int result);

    Services m_services;
    QPointer<SingleInstance> m_singleInstance;
    std::unique_ptr<QSystemTrayIcon> m_statusItem;
    // Declared after the status item it drives, so it goes first.
    std::unique_ptr<StatusMenu> m_statusMenu;
    QPointer<MainWindowController> m_mainWindowController;
    bool m_onboardingInProgress = false;
    bool m_needsOnboarding = false;
    double m_popupHideTimestamp = std::numeric_limits<double>::lowest(); // the distant past
};

// Builds and shows the 500 × 360 programmatic window used when the interface file
// has no main window. Replaces (and so closes) the previous one.
QWidget *showFallbackWindow(Application &application);
QWidget *fallbackWindow();

} // namespace vistrel
