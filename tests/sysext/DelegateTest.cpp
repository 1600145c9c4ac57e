// The two request delegates: the view controller's console messages and requests,
// and the application delegate's trace lines, alerts, flag, notification, relaunch
// and quit.
#include "app/AppDelegate.h"
#include "app/TraceLog.h"
#include "camera/ViewController.h"
#include "sysext/CameraExtensionHelper.h"
#include "sysext/ExtensionManager.h"

#include "ConsoleCapture.h"
#include "FakeExtensionManager.h"
#include "TestHome.h"
#include "TestServices.h"

#include <QTest>
#include <gtest/gtest.h>

using namespace vistrel;

namespace {


class ViewControllerDelegateTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        env.services.extensionManager = &manager;
        env.notifications.addObserver(kExtensionInstallationComplete, nullptr, [this] { ++posted; });
        owned = std::make_unique<ViewController>(env.services);
    }
    // The controller's messages, without the "showMessage " prefix.
    QStringList messages(test::ConsoleCapture &console)
    {
        QStringList result;
        for (const QString &line : console.lines())
            if (line.startsWith(QStringLiteral("showMessage ")))
                result << line.mid(12);
        return result;
    }

    test::TestServices env;
    test::FakeExtensionManager manager;
    int posted = 0;
    std::unique_ptr<ViewController> owned;
    ViewController &controller() { return *owned; }
};

class AppDelegateAnswersTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        QFile::remove(traceLogPath());
        env.notifications.addObserver(kExtensionInstallationComplete, nullptr, [this] { ++posted; });
    }
    QStringList traceMessages()
    {
        QStringList result;
        for (const QString &line : QString::fromUtf8(test::readFile(traceLogPath())).split(QLatin1Char('\n'), Qt::SkipEmptyParts))
            result << line.section(QStringLiteral("] "), 1);
        return result;
    }
    bool installedFlag() { return env.defaults->boolForKey(QStringLiteral("extensionInstalled")); }

    test::TestServices env;
    AppDelegate delegate{env.services};
    int posted = 0;
};

} // namespace

TEST_F(ViewControllerDelegateTest, RequestsCarryTheBundledIdentifierAndTheirDirection)
{
    controller().activate();
    controller().deactivate();
    ASSERT_EQ(manager.requests.size(), 2u);
    EXPECT_EQ(manager.requests[0].kind, sysext::RequestKind::Activation);
    EXPECT_EQ(manager.requests[0].identifier, QStringLiteral("app.vistrel.Vistrel.cameraextension"));
    EXPECT_EQ(manager.requests[1].kind, sysext::RequestKind::Deactivation);
    EXPECT_FALSE(controller().activating);

    // The answers of the first request reach the controller through its delegate.
    test::ConsoleCapture console;
    controller().activating = true;
    manager.requests[0].delegate->requestDidFinishWithResult(sysext::Completed);
    EXPECT_EQ(messages(console), (QStringList{QStringLiteral("Request finished with result: 0"), QStringLiteral("The camera is activated")}));
    EXPECT_EQ(posted, 1);
}

TEST_F(ViewControllerDelegateTest, EveryAnswerIsReportedInItsOwnWords)
{
    struct Case
    {
        const char *name;
        bool activating;
        std::function<void(ViewController &)> answer;
        QStringList expected;
        int posts;
    };
    const Case cases[] = {
        {"replacing", true, [](ViewController &c) { EXPECT_EQ(c.actionForReplacingExtension(QStringLiteral("0.9"), QStringLiteral("1.0")), sysext::Replace); },
         {QStringLiteral("Replacing extension version 0.9 with 1.0")}, 0},
        {"approval", true, [](ViewController &c) { c.requestNeedsUserApproval(); },
         {QStringLiteral("Extension needs user approval and please restart the Vistrel to finish activating the camera")}, 0},
        {"activated after reboot", true, [](ViewController &c) { c.requestDidFinishWithResult(1); },
         {QStringLiteral("Request finished with result: 1"), QStringLiteral("Please reboot to finish activating the Dorvane camera")}, 0},
        {"deactivated after reboot", false, [](ViewController &c) { c.requestDidFinishWithResult(1); },
         {QStringLiteral("Request finished with result: 1"), QStringLiteral("Please Reboot to finish deactivating the Dorvane camera")}, 0},
        {"deactivated", false, [](ViewController &c) { c.requestDidFinishWithResult(0); },
         {QStringLiteral("Request finished with result: 0"), QStringLiteral("The camera is deactivated")}, 0},
        {"activation failed", true, [](ViewController &c) { c.requestDidFailWithError({sysext::kSystemExtensionErrorDomain, 3, QStringLiteral("secret")}); },
         {QStringLiteral("Failed to activate the camera, install Vistrel on this computer first :)")}, 0},
        {"deactivation failed", false, [](ViewController &c) { c.requestDidFailWithError({sysext::kSystemExtensionErrorDomain, 1, QStringLiteral("secret")}); },
         {QStringLiteral("Failed to deactivate the camera")}, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        test::ConsoleCapture console;
        controller().activating = c.activating;
        posted = 0;
        c.answer(controller());
        EXPECT_EQ(messages(console), c.expected);
        EXPECT_EQ(posted, c.posts);
    }
}

TEST_F(ViewControllerDelegateTest, TheWarningAppearsOnlyWhenInstalledButNotActivated)
{
    for (const bool installed : {false, true}) {
        for (const bool activated : {false, true}) {
            env.extensionProbes.installed = installed;
            env.extensionProbes.activated = activated;
            controller().warnIfExtensionNotActivated();
        }
    }
    ASSERT_EQ(env.alerts.shown.size(), 1);
    const AlertSpec &alert = env.alerts.shown[0];
    EXPECT_EQ(alert.title, QStringLiteral("Camera Extension Not Activated"));
    EXPECT_EQ(alert.text, QStringLiteral("The Vistrel camera extension is installed but not activated. Open Camera Help to enable it."));
    EXPECT_EQ(alert.buttons, (QStringList{QStringLiteral("Open Camera Help"), QStringLiteral("Later")}));
    EXPECT_EQ(alert.style, AlertStyle::Warning);
    EXPECT_EQ(env.urlOpener.opened, QList<QUrl>{sysext::CameraExtensionHelper::extensionSettingsUrl(env.services.bundle)});

    env.extensionProbes.installed = true;
    env.extensionProbes.activated = false;
    env.alerts.answers = {1}; // "Later"
    controller().warnIfExtensionNotActivated();
    EXPECT_EQ(env.urlOpener.opened.size(), 1);
}

TEST_F(AppDelegateAnswersTest, ACompletedActivationStoresTheFlagNotifiesAndRelaunches)
{
    delegate.requestDidFinishWithResult(sysext::Completed);
    EXPECT_TRUE(env.alerts.shown.isEmpty()) << "the alert waits until the callback has returned";
    QTRY_COMPARE(env.alerts.shown.size(), 1);
    EXPECT_EQ(env.alerts.shown[0].title, QStringLiteral("Camera Extension Installed"));
    EXPECT_EQ(env.alerts.shown[0].text, QStringLiteral("Vistrel must relaunch for the camera extension to become usable. This only takes a moment."));
    EXPECT_EQ(env.alerts.shown[0].buttons, QStringList{QStringLiteral("Relaunch Now")});
    EXPECT_TRUE(installedFlag());
    EXPECT_EQ(posted, 1);
    EXPECT_EQ(env.launcher.programs, QStringList{QStringLiteral("/opt/vistrel/bin/vistrel")});
    EXPECT_EQ(env.application.terminateCalls, 1);
    EXPECT_EQ(traceMessages(), QStringList{QStringLiteral("sysext finished result=0")});
}

TEST_F(AppDelegateAnswersTest, AnActivationAfterRebootStoresTheFlagAndQuitsWithoutNotifying)
{
    delegate.requestDidFinishWithResult(sysext::WillCompleteAfterReboot);
    QTRY_COMPARE(env.alerts.shown.size(), 1);
    EXPECT_EQ(env.alerts.shown[0].title, QStringLiteral("Restart Your Computer"));
    EXPECT_EQ(env.alerts.shown[0].text, QStringLiteral("The camera extension will finish installing after you restart your computer. "
                                                       "Vistrel will now quit — please reboot, then reopen Vistrel."));
    EXPECT_EQ(env.alerts.shown[0].buttons, QStringList{QStringLiteral("Quit Vistrel")});
    EXPECT_EQ(env.alerts.shown[0].style, AlertStyle::Warning);
    EXPECT_TRUE(installedFlag());
    EXPECT_EQ(posted, 0);
    EXPECT_EQ(env.application.terminateCalls, 1);
    EXPECT_TRUE(env.launcher.programs.isEmpty());

    delegate.requestDidFinishWithResult(7);
    QTest::qWait(20);
    EXPECT_EQ(env.alerts.shown.size(), 1) << "other results do nothing more";
    EXPECT_EQ(traceMessages(), (QStringList{QStringLiteral("sysext finished result=1"), QStringLiteral("sysext finished result=7")}));
}

TEST_F(AppDelegateAnswersTest, ApprovalReplacementAndFailuresAreTracedAndExplained)
{
    EXPECT_EQ(delegate.actionForReplacingExtension(QStringLiteral("0.9"), QStringLiteral("1.0")), sysext::Replace);
    delegate.requestNeedsUserApproval();
    delegate.requestDidFailWithError({sysext::kSystemExtensionErrorDomain, 3, QStringLiteral("The helper is missing.")});
    delegate.requestDidFailWithError({QStringLiteral("NSPOSIXErrorDomain"), 3, QStringLiteral("No such process")});
    env.alerts.answers = {0, 1, 1}; // the first alert opens the help page
    QTRY_COMPARE(env.alerts.shown.size(), 3);

    EXPECT_EQ(traceMessages(), (QStringList{
                                   QStringLiteral("sysext replace: 0.9 -> 1.0"),
                                   QStringLiteral("sysext needs user approval"),
                                   QStringLiteral("sysext failed code=3 domain=OSSystemExtensionErrorDomain desc=The helper is missing."),
                                   QStringLiteral("sysext failed code=3 domain=NSPOSIXErrorDomain desc=No such process"),
                               }));
    for (const AlertSpec &alert : env.alerts.shown) {
        EXPECT_EQ(alert.buttons, (QStringList{QStringLiteral("Open Camera Help"), QStringLiteral("Close")}));
        EXPECT_EQ(alert.style, AlertStyle::Warning);
    }
    EXPECT_EQ(env.alerts.shown[0].title, QStringLiteral("Approval Required"));
    EXPECT_EQ(env.alerts.shown[0].text,
              QStringLiteral("Please allow Vistrel to install the camera extension: enter your password when asked, and approve "
                             "its signing key at the next restart if your computer uses Secure Boot.\n\nYou may need to restart "
                             "Vistrel after approving."));
    EXPECT_EQ(env.alerts.shown[1].title, QStringLiteral("Installation Failed"));
    EXPECT_EQ(env.alerts.shown[1].text,
              QStringLiteral("Vistrel cannot install the camera extension unless the app is installed on this computer.\n\n"
                             "Quit Vistrel, install it (for example with “sudo cmake --install build”), then reopen it."));
    EXPECT_EQ(env.alerts.shown[2].text,
              QStringLiteral("The camera extension could not be installed.\n\nPlease make sure the v4l2loopback kernel module is "
                             "installed (Camera Help shows how) and allow Vistrel to set it up when asked for your password.\n\n"
                             "Error: No such process"));
    EXPECT_EQ(env.urlOpener.opened, QList<QUrl>{sysext::CameraExtensionHelper::extensionSettingsUrl(env.services.bundle)});
    EXPECT_FALSE(installedFlag());
    EXPECT_EQ(env.application.terminateCalls, 0);
}
