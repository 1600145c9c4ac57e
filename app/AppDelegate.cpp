#include "app/AppDelegate.h"
#include "app/SingleInstance.h"

#include "camera/CameraAuthorization.h"
#include "core/Platform.h"
#include "core/SystemLog.h"
#include "core/TraceLog.h"
#include "core/UserDefaults.h"
#include "core/WindowPlacement.h"
#include "onboarding/OnboardingManager.h"
#include "sysext/ExtensionProbes.h"
#include "ui/MainWindowController.h"
#include "ui/StatusMenu.h"
#include "ui/ViewController.h"

#include <QApplication>
#include <QCoreApplication>
#include <QEvent>
#include <QLabel>
#include <QScreen>
#include <QSystemTrayIcon>
#include <QVBoxLayout>
#include <QWidget>

namespace vistrel {
namespace {

QString boolText(bool value)
{
    return value ? QStringLiteral("true") : QStringLiteral("false");
}

QPointer<QWidget> &fallbackWindowSlot()
{
    static QPointer<QWidget> window;
    return window;
}

// Forwards the main window's loss of activation to the delegate.
class ResignKeyObserver : public QObject
{
public:
    ResignKeyObserver(AppDelegate *delegate, QWidget *window) : QObject(window), m_delegate(delegate), m_window(window)
    {
        setObjectName(QStringLiteral("resignKeyObserver"));
        window->installEventFilter(this);
    }

protected:
    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (watched == m_window && event->type() == QEvent::WindowDeactivate && m_delegate)
            m_delegate->windowDidResignKey(m_window);
        return false;
    }

private:
    QPointer<AppDelegate> m_delegate;
    QWidget *m_window;
};

} // namespace

QWidget *fallbackWindow()
{
    return fallbackWindowSlot().data();
}

QWidget *showFallbackWindow(Application &application)
{
    auto *window = new QWidget(nullptr, Qt::Window);
    window->setWindowTitle(QStringLiteral("Vistrel"));
    window->resize(500, 360);

    auto *label = new QLabel(QStringLiteral("Vistrel is running.\nClick the menu-bar icon for options."));
    label->setAlignment(Qt::AlignCenter);
    QFont font = label->font();
    font.setPointSize(14);
    label->setFont(font);
    label->setTextInteractionFlags(Qt::NoTextInteraction);
    auto *layout = new QVBoxLayout(window);
    layout->addWidget(label, 0, Qt::AlignCenter);

    centerWindowOnScreen(window);
    // Only one fallback window is kept: the previous one goes.
    delete fallbackWindowSlot().data();
    fallbackWindowSlot() = window;
    QWidget *shown = window;

    application.activateIgnoringOtherApps();
    shown->show();
    shown->raise();
    shown->activateWindow();
    systemLog(QStringLiteral("programmatic fallback window shown — frame=") + describeFrame(shown->geometry()));
    return shown;
}

AppDelegate::AppDelegate(const Services &services, QObject *parent) : QObject(parent), m_services(services) {}

AppDelegate::~AppDelegate() = default;

MainWindowController *AppDelegate::mainWindowController() const
{
    return m_mainWindowController;
}

void AppDelegate::applicationDidFinishLaunching()
{
    const QString exec =
        m_services.bundle.executablePath.isEmpty() ? QStringLiteral("?") : m_services.bundle.executablePath;
    traceLog(QStringLiteral("didFinishLaunching ENTER pid=") + QString::number(QCoreApplication::applicationPid())
             + QStringLiteral(" exec=") + exec);

    OnboardingManager onboarding(m_services);
    const bool onboardingComplete = onboarding.onboardingComplete();
    const int cameraAuth = m_services.cameraAuthorization->authorizationStatus();
    const bool extInstalled = m_services.extensionProbes->isExtensionInstalledProbe();
    const bool extActivated = m_services.extensionProbes->isExtensionActivatedProbe();
    m_needsOnboarding = onboarding.isOnboardingNeeded();

    const QString fields = QStringLiteral("onboardingComplete=") + boolText(onboardingComplete)
        + QStringLiteral(" cameraAuth=") + QString::number(cameraAuth) + QStringLiteral(" extInstalled=")
        + boolText(extInstalled) + QStringLiteral(" extActivated=") + boolText(extActivated)
        + QStringLiteral(" needsOnboarding=") + boolText(m_needsOnboarding);
    traceLog(QStringLiteral("didFinishLaunching state — ") + fields);
    systemLog(QStringLiteral("didFinishLaunching — ") + fields);

    m_services.application->activateIgnoringOtherApps();

    QWidget *autoLoaded = MainWindowController::firstWindowWithController();
    m_mainWindowController = MainWindowController::of(autoLoaded);
    traceLog(QStringLiteral("autoLoadedMain=") + describeOptional(autoLoaded) + QStringLiteral(" wc=")
             + describeOptional(m_mainWindowController.data()));

    if (!m_needsOnboarding) {
        traceLog(QStringLiteral("taking MAIN WINDOW path"));
        setupStatusItem();
        prepareMainWindow();
        if (autoLoaded)
            autoLoaded->hide();
        startUpdateCheck();
        traceLog(QStringLiteral("didFinishLaunching EXIT"));
        return;
    }

    traceLog(QStringLiteral("taking ONBOARDING path"));
    m_onboardingInProgress = true;
    if (autoLoaded)
        autoLoaded->hide();
    showOnboardingWindow();
    traceLog(QStringLiteral("didFinishLaunching EXIT"));
}

void AppDelegate::prepareMainWindow()
{
    if (m_onboardingInProgress)
        return;
    if (!m_mainWindowController) {
        m_mainWindowController = instantiateMainInterface(m_services, m_services.bundle.mainInterfacePath());
        systemLog(QStringLiteral("main storyboard fallback instantiate -> ")
                  + describeOptional(m_mainWindowController.data()));
        if (!m_mainWindowController) {
            systemLog(QStringLiteral("no main window from storyboard — falling back to programmatic window"));
            showFallbackWindow(*m_services.application);
            return;
        }
    }
    QWidget *window = m_mainWindowController->window();
    if (!window) {
        systemLog(QStringLiteral("no main window from storyboard — falling back to programmatic window"));
        showFallbackWindow(*m_services.application);
        return;
    }

    // A pop-up panel: frameless (so not movable), floating above other windows,
    // shown on whichever desktop is current.
    window->setWindowFlags(Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint);
    if (!window->findChild<QObject *>(QStringLiteral("resignKeyObserver"), Qt::FindDirectChildrenOnly))
        new ResignKeyObserver(this, window);
    window->hide();
    systemLog(QStringLiteral("main window prepared (hidden) — frame=") + describeFrame(window->geometry()));
    if (ViewController *content = m_mainWindowController->contentViewController())
        Q_EMIT mainWindowPrepared(content);
}

void AppDelegate::onboardingCompleted()
{
    traceLog(QStringLiteral("onboarding completed — restarting app"));
    m_onboardingInProgress = false;
    restartApp();
}

void AppDelegate::restartApp()
{
    // The new process must not find this one still answering and defer to it.
    if (m_singleInstance)
        m_singleInstance->release();
    QString error;
    if (m_services.launcher->launchDetached(m_services.bundle.executablePath, {}, &error)) {
        m_services.application->terminate();
        return;
    }
    if (m_singleInstance)
        m_singleInstance->listen();
    traceLog(QStringLiteral("restartApp failed: ") + error);
}

void AppDelegate::applicationWillTerminate()
{
    if (m_onboardingInProgress)
        OnboardingManager(m_services).setOnboardingComplete(false);
}

} // namespace vistrel
