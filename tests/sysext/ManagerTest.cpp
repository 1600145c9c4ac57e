// The helper-backed extension manager with a real child process in pkexec's place:
// a script that runs the helper's test build on a fake machine, or that ends the way
// pkexec ends when the password prompt is dismissed or authorisation is refused.
#include "sysext/HelperExtensionManager.h"

#include "FakeLoopbackMachine.h"
#include "TestServices.h"
#include "app/AppDelegate.h"
#include "sysext/CameraExtensionHelper.h"

#include <QFile>
#include <QFileInfo>
#include <QTest>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <unistd.h>

using namespace vistrel;
using test::FakeLoopbackMachine;

namespace {

const QString kId = FakeLoopbackMachine::kIdentifier;

// Each answer as one line: "replace 0.9 -> 1.0", "approval", "finished 0", "failed <code> <domain> <text>".
struct RecordingDelegate final : sysext::ExtensionRequestDelegate
{
    QStringList answers;
    int replacement = sysext::Replace;
    int actionForReplacingExtension(const QString &old, const QString &fresh) override
    {
        return answers << "replace " + old + " -> " + fresh, replacement;
    }
    void requestNeedsUserApproval() override { answers << "approval"; }
    void requestDidFinishWithResult(int result) override { answers << "finished " + QString::number(result); }
    void requestDidFailWithError(const sysext::ExtensionRequestError &e) override
    {
        answers << QStringLiteral("failed %1 %2 %3").arg(e.code).arg(e.domain, e.description);
    }
};

QString failed(int code)
{
    return QStringLiteral("failed %1 %2 ").arg(code).arg(sysext::kSystemExtensionErrorDomain);
}

class ManagerTest : public ::testing::Test
{
protected:
    // A fresh machine with the module and an installed app, whose pkexec stand-in runs the helper.
    void SetUp() override
    {
        machine.emplace();
        machine->installModule("0.12.7");
        config = {.pkexecPath = machine->path("app/pkexec"),
                  .helperPath = machine->path("app/helper"),
                  .policyPath = machine->path("app/app.vistrel.Vistrel.policy"),
                  .extensionsDir = machine->path("share/vistrel/SystemExtensions"),
                  .helperOwner = ::geteuid(),
                  .roots = {machine->path("sys"), machine->path("etc"), "/dev"}};
        script("app/helper",
               "exec '" VISTREL_BINARY_DIR "/test-bin/vistrel-camera-extension-helper-testable' --test-root='"
                   + machine->root() + "' \"$@\"");
        pkexec("exec \"$@\"");
        machine->write("app/app.vistrel.Vistrel.policy", "<policyconfig/>\n");
    }
    // The stand-in logs each start, then does `body`.
    void pkexec(const QString &body)
    {
        script("app/pkexec", "echo \"$*\" >> '" + machine->root() + "/kernel/pkexec-log'\n" + body);
    }
    void script(const QString &relative, const QString &body)
    {
        machine->write(relative, "#!/bin/sh\n" + body + "\n");
        QFile::setPermissions(machine->path(relative), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
    int pkexecRuns() const { return machine->read("kernel/pkexec-log").count('\n'); }
    // Submits one request and waits for its last answer.
    QStringList submit(sysext::RequestKind kind = sysext::RequestKind::Activation, int replacement = sysext::Replace)
    {
        sysext::HelperExtensionManager manager(config);
        auto delegate = std::make_shared<RecordingDelegate>();
        delegate->replacement = replacement;
        manager.submitRequest({kind, kId, delegate});
        EXPECT_TRUE(delegate->answers.empty()) << "answers never arrive inside submitRequest";
        const auto done = [&] { return !delegate->answers.empty() && !delegate->answers.back().startsWith("replace"); };
        EXPECT_TRUE(QTest::qWaitFor(done, 20000)) << "no answer";
        QTest::qWait(20); // nothing else follows
        return delegate->answers;
    }

    std::optional<FakeLoopbackMachine> machine;
    sysext::HelperExtensionManager::Config config;
};

} // namespace

TEST_F(ManagerTest, AnotherVersionIsReplacedOnConsentAndNothingIsAskedWhenNothingWouldChange)
{
    machine->write(machine->modprobeFile(),
                   "# vistrel-extension identifier=" + kId
                       + " version=0.9 state=installed\noptions v4l2loopback devices=1 card_label=Vistrel\n");
    const QStringList refused = submit(sysext::RequestKind::Activation, sysext::CancelReplacement);
    EXPECT_TRUE(refused.size() == 2
                && refused.join('|').startsWith("replace 0.9 -> 1.0|" + failed(sysext::RequestCanceled)))
        << refused.join('|').toStdString();
    EXPECT_EQ(pkexecRuns(), 0);

    EXPECT_EQ(submit(), (QStringList{"replace 0.9 -> 1.0", "finished 0"}));
    EXPECT_EQ(machine->read("kernel/pkexec-log"), config.helperPath + " activate " + kId + "\n");
    EXPECT_EQ(submit(), QStringList{"finished 0"});
    EXPECT_EQ(pkexecRuns(), 1) << "no password prompt when nothing would change";
    const QString bootLoad = machine->modulesLoadFile();
    const QString bootLoadText = machine->read(bootLoad);
    ASSERT_FALSE(bootLoadText.isEmpty());

    EXPECT_EQ(submit(sysext::RequestKind::Deactivation), QStringList{"finished 0"});
    EXPECT_EQ(submit(sysext::RequestKind::Deactivation), QStringList{"finished 0"});
    EXPECT_EQ(pkexecRuns(), 2) << "one removal, then nothing left to remove";

    // The boot-time load file alone (left by an interrupted removal) is still something
    // to remove, and its absence alone something to install.
    machine->write(bootLoad, bootLoadText);
    EXPECT_EQ(submit(sysext::RequestKind::Deactivation), QStringList{"finished 0"});
    EXPECT_EQ(pkexecRuns(), 3);
    EXPECT_FALSE(QFileInfo::exists(bootLoad));
    EXPECT_EQ(submit(), QStringList{"finished 0"});
    QFile::remove(bootLoad);
    EXPECT_EQ(submit(), QStringList{"finished 0"});
    EXPECT_EQ(pkexecRuns(), 5);
    EXPECT_EQ(machine->read(bootLoad), bootLoadText);
}

TEST_F(ManagerTest, EachWayARequestEndsMapsToItsAnswer)
{
    struct Case
    {
        const char *name;
        std::function<void()> setUp;
        QString answer;
        int prompts;
    }; // a failure gives a reason after answer
    const QString notInstalled = failed(sysext::UnsupportedParentBundleLocation);
    const Case cases[] = {
        {"prompt dismissed", [&] { pkexec("exit 126"); }, failed(sysext::RequestCanceled), 1},
        // pkexec speaks the user's language unless told otherwise.
        {"refused by a polkit rule",
         [&] {
             pkexec("if [ \"$LC_ALL\" = C ]; then printf 'Error executing command as another user: Not authorized"
                    "\\n\\nThis incident has been reported.\\n'; else echo 'Fehler beim Ausf\u00fchren des Befehls als "
                    "anderer Benutzer: Nicht autorisiert'; fi >&2; exit 127");
         },
         failed(sysext::ForbiddenBySystemPolicy), 1},
        {"no agent to ask for the password",
         [&] {
             pkexec("echo 'Error executing command as another user: No authentication agent found.' >&2; exit 127");
         },
         failed(sysext::AuthorizationRequired), 1},
        {"helper silent", [&] { pkexec("exit 0"); }, failed(sysext::UnknownError), 1},
        {"module missing", [&] { QFile::remove(machine->path("kernel/version")); }, failed(sysext::ModuleNotInstalled),
         1},
        {"key rejected", [&] { machine->refuseModule("Key was rejected by service"); }, "approval", 1},
        // The app is not installed: no password prompt.
        {"helper missing", [&] { config.helperPath = machine->path("app/none"); }, notInstalled, 0},
        {"helper writable by others",
         [&] { QFile::setPermissions(config.helperPath, QFile::ReadOwner | QFile::ExeOwner | QFile::WriteOther); },
         notInstalled, 0},
        {"helper of another owner (a build tree)", [&] { config.helperOwner = ::geteuid() + 1; }, notInstalled, 0},
        {"policy missing", [&] { QFile::remove(config.policyPath); }, notInstalled, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        c.setUp();
        const QString a = submit().join('|'); // exactly one answer
        EXPECT_TRUE(c.answer.endsWith(' ') ? a.startsWith(c.answer) && a.size() > c.answer.size() && !a.contains('|')
                                           : a == c.answer)
            << a.toStdString();
        EXPECT_EQ(pkexecRuns(), c.prompts);
    }
}

TEST_F(ManagerTest, RequestsSubmittedTogetherTakeTurnsSoALaterOneSeesWhatAnEarlierOneDid)
{
    using Kind = sysext::RequestKind;
    sysext::HelperExtensionManager manager(config);
    const auto submitTwo = [&](Kind first, Kind second) {
        const auto a = std::make_shared<RecordingDelegate>(), b = std::make_shared<RecordingDelegate>();
        manager.submitRequest({first, kId, a});
        manager.submitRequest({second, kId, b});
        EXPECT_TRUE(QTest::qWaitFor([&] { return !a->answers.empty() && !b->answers.empty(); }, 40000));
        return a->answers + b->answers;
    };
    // The launch and onboarding can both ask for the camera: one password prompt.
    EXPECT_EQ(submitTwo(Kind::Activation, Kind::Activation), (QStringList{"finished 0", "finished 0"}));
    EXPECT_EQ(pkexecRuns(), 1) << "the second request found nothing left to do";
    // Each is judged once the one before has run: the last one decides what is installed.
    EXPECT_EQ(submitTwo(Kind::Deactivation, Kind::Activation), (QStringList{"finished 0", "finished 0"}));
    EXPECT_EQ(pkexecRuns(), 3);
    EXPECT_TRUE(QFileInfo::exists(machine->modprobeFile()) && QFileInfo::exists(machine->modulesLoadFile()));
}

// Onboarding's request with the application delegate answering, on a machine whose kernel
// is locked down by Secure Boot and refuses the module: the user is told to approve its key
// at the next restart, and the help page that shows how is one button away.
TEST_F(ManagerTest, ASecureBootRefusalReachesTheUserAsTheApprovalAlert)
{
    machine->setLockdown("none [integrity] confidentiality");
    machine->refuseModule("Operation not permitted");
    test::TestServices env;
    AppDelegate delegate(env.services);
    sysext::HelperExtensionManager manager(config);
    manager.submitRequest({sysext::RequestKind::Activation, kId, sysext::delegateFor(&delegate)});
    ASSERT_TRUE(QTest::qWaitFor([&] { return !env.alerts.shown.empty(); }, 20000));
    QTest::qWait(20); // nothing else follows
    ASSERT_EQ(env.alerts.shown.size(), 1);
    const AlertSpec &alert = env.alerts.shown[0];
    EXPECT_EQ(alert.title, "Approval Required");
    EXPECT_EQ(alert.text,
              "Please allow Vistrel to install the camera extension: enter your password when asked, and approve its "
              "signing key at the next restart if your computer uses Secure Boot.\n\nYou may need to restart Vistrel "
              "after approving.");
    EXPECT_EQ(alert.buttons, (QStringList{"Open Camera Help", "Close"}));
    EXPECT_EQ(env.urlOpener.opened,
              QList<QUrl>{sysext::CameraExtensionHelper::extensionSettingsUrl(env.services.bundle)});
    EXPECT_FALSE(env.defaults->boolForKey("extensionInstalled")) << "not installed until the key is enrolled";
    EXPECT_EQ(env.launcher.programs.size() + env.application.terminateCalls, 0) << "no relaunch, no quit";
}
