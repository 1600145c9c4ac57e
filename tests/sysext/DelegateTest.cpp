// The two request delegates: the view controller's requests, console messages and warning,
// and the application delegate's trace lines, alerts, flag, notification, relaunch and quit.
#include "app/AppDelegate.h"
#include "core/TraceLog.h"
#include "sysext/CameraExtensionHelper.h"
#include "sysext/ExtensionManager.h"
#include "ui/ExtensionRequests.h"
#include "ui/ViewController.h"

#include "ConsoleCapture.h"
#include "FakeExtensionManager.h"
#include "TestHome.h"
#include "TestServices.h"

#include <QTest>
#include <gtest/gtest.h>

using namespace vistrel;

namespace {

// One alert on one line: title | text | buttons, then "| warning" for the warning style.
QString shown(const AlertSpec &alert)
{
    return alert.title + " | " + alert.text + " | " + alert.buttons.join(", ")
        + (alert.style == AlertStyle::Warning ? " | warning" : "");
}

class DelegateTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        QFile::remove(traceLogPath());
        env.services.extensionManager = &manager;
        env.notifications.addObserver(kExtensionInstallationComplete, nullptr, [this] { ++posted; });
    }
    QUrl helpPage() { return sysext::CameraExtensionHelper::extensionSettingsUrl(env.services.bundle); }

    test::TestServices env;
    test::FakeExtensionManager manager;
    int posted = 0;
};

} // namespace

TEST_F(DelegateTest, TheControllerRequestsReportsEachAnswerInItsOwnWordsAndWarnsWhenNotActivated)
{
    ViewController controller(env.services);
    ExtensionRequests &requests = controller.extensionRequests();
    controller.activate();
    controller.deactivate();
    ASSERT_EQ(manager.requests.size(), 2u);
    EXPECT_EQ(manager.requests[0].kind, sysext::RequestKind::Activation);
    EXPECT_EQ(manager.requests[0].identifier, "app.vistrel.Vistrel.cameraextension");
    EXPECT_EQ(manager.requests[1].kind, sysext::RequestKind::Deactivation);
    EXPECT_FALSE(requests.activating());

    // The controller's messages for one answer, joined with " / ".
    const auto says = [&](bool activating, const std::function<void(ExtensionRequests &)> &answer) {
        requests.requestExtensionChange(activating ? sysext::RequestKind::Activation
                                                   : sysext::RequestKind::Deactivation);
        test::ConsoleCapture console;
        answer(requests);
        QStringList messages = console.lines().filter(QStringLiteral("showMessage "));
        return messages.replaceInStrings(QStringLiteral("showMessage "), QString()).join(" / ");
    };
    const auto finish = [](int result) { return [result](auto &d) { d.requestDidFinishWithResult(result); }; };
    const auto fail = [](int code) {
        return [code](auto &d) { d.requestDidFailWithError({sysext::kSystemExtensionErrorDomain, code, "x"}); };
    };
    // Through the delegate handed to the manager, so the answers reach this controller.
    EXPECT_EQ(says(true, [&](auto &) { manager.requests[0].delegate->requestDidFinishWithResult(0); }),
              "Request finished with result: 0 / The camera is activated");
    EXPECT_EQ(posted, 1);
    EXPECT_EQ(says(true, [](auto &d) { EXPECT_EQ(d.actionForReplacingExtension("0.9", "1.0"), sysext::Replace); }),
              "Replacing extension version 0.9 with 1.0");
    EXPECT_EQ(says(true, [](auto &d) { d.requestNeedsUserApproval(); }),
              "Extension needs user approval and please restart the Vistrel to finish activating the camera");
    EXPECT_EQ(says(true, finish(1)),
              "Request finished with result: 1 / Please reboot to finish activating the Dorvane camera");
    EXPECT_EQ(says(false, finish(1)),
              "Request finished with result: 1 / Please Reboot to finish deactivating the Dorvane camera");
    EXPECT_EQ(says(false, finish(0)), "Request finished with result: 0 / The camera is deactivated");
    EXPECT_EQ(says(true, fail(3)), "Failed to activate the camera, install Vistrel on this computer first :)");
    EXPECT_EQ(says(false, fail(1)), "Failed to deactivate the camera");
    EXPECT_EQ(posted, 1) << "only a completed activation notifies";

    // A warning only when installed but not activated.
    env.alerts.answers = {0, 1}; // "Open Camera Help", then "Later"
    for (const auto &[installed, activated] : {std::pair{false, false}, {true, true}, {true, false}, {true, false}}) {
        env.extensionProbes.installed = installed;
        env.extensionProbes.activated = activated;
        requests.warnIfExtensionNotActivated();
    }
    ASSERT_EQ(env.alerts.shown.size(), 2);
    EXPECT_EQ(shown(env.alerts.shown[0]),
              "Camera Extension Not Activated | The Vistrel camera extension is installed but not "
              "activated. Open Camera Help to enable it. | Open Camera Help, Later | warning");
    EXPECT_EQ(env.urlOpener.opened, QList<QUrl>{helpPage()}) << "opened once, not for Later";
}

TEST_F(DelegateTest, TheAppDelegateTracesAndExplainsEachAnswerThenRelaunchesOrQuits)
{
    AppDelegate delegate(env.services);
    const auto effects = [&] {
        return QStringLiteral("installed=%1 notified=%2 relaunched=%3 quit=%4")
            .arg(int(env.defaults->boolForKey("extensionInstalled")))
            .arg(posted)
            .arg(env.launcher.programs.size())
            .arg(env.application.terminateCalls);
    };
    EXPECT_EQ(delegate.actionForReplacingExtension("0.9", "1.0"), sysext::Replace);
    delegate.requestNeedsUserApproval();
    delegate.requestDidFailWithError({sysext::kSystemExtensionErrorDomain, 3, "The helper is missing."});
    delegate.requestDidFailWithError({"NSPOSIXErrorDomain", 3, "No such process"});
    env.alerts.answers = {0, 1, 1}; // the first alert opens the help page
    ASSERT_TRUE(QTest::qWaitFor([&] { return env.alerts.shown.size() == 3; }));
    EXPECT_EQ(
        shown(env.alerts.shown[0]),
        "Approval Required | Please allow Vistrel to install the camera extension: enter your password when asked, and "
        "approve its signing key at the next restart if your computer uses Secure Boot.\n\nYou may need to restart "
        "Vistrel after approving. | Open Camera Help, Close | warning");
    EXPECT_EQ(
        shown(env.alerts.shown[1]),
        "Installation Failed | Vistrel cannot install the camera extension unless the app is installed on this "
        "computer.\n\nQuit Vistrel, install its package (for example “sudo apt install ./vistrel_1.0_amd64.deb”), then "
        "reopen it. | "
        "Open Camera Help, Close | warning");
    EXPECT_EQ(shown(env.alerts.shown[2]),
              "Installation Failed | The camera extension could not be installed.\n\nPlease make sure the v4l2loopback "
              "kernel module is installed (Camera Help shows how) and allow Vistrel to set it up when asked for your "
              "password.\n\nError: No such process | Open Camera Help, Close | warning");
    EXPECT_EQ(env.urlOpener.opened, QList<QUrl>{helpPage()});

    delegate.requestDidFinishWithResult(sysext::Completed);
    EXPECT_EQ(env.alerts.shown.size(), 3) << "the alert waits until the callback has returned";
    ASSERT_TRUE(QTest::qWaitFor([&] { return env.alerts.shown.size() == 4; }));
    EXPECT_EQ(shown(env.alerts.shown[3]),
              "Camera Extension Installed | Vistrel must relaunch for the camera extension to "
              "become usable. This only takes a moment. | Relaunch Now");
    EXPECT_EQ(effects(), "installed=1 notified=1 relaunched=1 quit=1");

    env.defaults->setBool("extensionInstalled", false);
    delegate.requestDidFinishWithResult(sysext::WillCompleteAfterReboot);
    delegate.requestDidFinishWithResult(7); // other results do nothing
    QTest::qWait(20);
    ASSERT_EQ(env.alerts.shown.size(), 5);
    EXPECT_EQ(shown(env.alerts.shown[4]),
              "Restart Your Computer | The camera extension will finish installing after you "
              "restart your computer. Vistrel will now quit — please reboot, then reopen "
              "Vistrel. | Quit Vistrel | warning");
    EXPECT_EQ(effects(), "installed=1 notified=1 relaunched=1 quit=2")
        << "no notification before the reboot, no relaunch";
    QStringList trace;
    for (const QString &line : QString::fromUtf8(test::readFile(traceLogPath())).split('\n', Qt::SkipEmptyParts))
        trace << line.section("] ", 1);
    EXPECT_EQ(trace.join('\n'),
              "sysext replace: 0.9 -> 1.0\nsysext needs user approval\n"
              "sysext failed code=3 domain=OSSystemExtensionErrorDomain desc=The helper is missing.\n"
              "sysext failed code=3 domain=NSPOSIXErrorDomain desc=No such process\n"
              "sysext finished result=0\nsysext finished result=1\nsysext finished result=7");
}
