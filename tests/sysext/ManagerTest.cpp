// The helper-backed extension manager with a real child process in pkexec's place:
// a script that runs the helper's test build on a fake machine, or that ends the way
// pkexec ends when the password prompt is dismissed or authorisation is refused.
#include "sysext/HelperExtensionManager.h"

#include "FakeLoopbackMachine.h"

#include <QFile>
#include <QSignalSpy>
#include <QTest>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace vistrel;
using test::FakeLoopbackMachine;

namespace {

struct Answer
{
    QString kind; // "replace", "approval", "finished", "failed"
    int value = 0;
    QString domain;
    QString text;
};

class RecordingDelegate final : public sysext::ExtensionRequestDelegate
{
public:
    std::vector<Answer> answers;
    int replacementAnswer = sysext::Replace;

    int actionForReplacingExtension(const QString &existing, const QString &fresh) override
    {
        answers.push_back({QStringLiteral("replace"), 0, {}, existing + QStringLiteral(" -> ") + fresh});
        return replacementAnswer;
    }
    void requestNeedsUserApproval() override { answers.push_back({QStringLiteral("approval")}); }
    void requestDidFinishWithResult(int result) override { answers.push_back({QStringLiteral("finished"), result}); }
    void requestDidFailWithError(const sysext::ExtensionRequestError &error) override
    {
        answers.push_back({QStringLiteral("failed"), error.code, error.domain, error.description});
    }
};

void writeScript(const QString &path, const QString &body)
{
    QFile file(path);
    file.open(QIODevice::WriteOnly | QIODevice::Truncate);
    file.write(("#!/bin/sh\n" + body + "\n").toUtf8());
    file.close();
    QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadOther | QFile::ExeOther);
}

class ManagerTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        const QString bin = machine.path(QStringLiteral("app"));
        QDir().mkpath(bin);
        config.helperPath = bin + QStringLiteral("/helper");
        config.pkexecPath = bin + QStringLiteral("/pkexec");
        config.policyPath = bin + QStringLiteral("/app.vistrel.Vistrel.policy");
        config.extensionsDir = machine.path(QStringLiteral("share/vistrel/SystemExtensions"));
        config.helperOwner = ::geteuid();
        config.roots = {machine.path(QStringLiteral("sys")), machine.path(QStringLiteral("etc")), QStringLiteral("/dev")};
        writeScript(config.helperPath, QStringLiteral("exec '" VISTREL_BINARY_DIR "/test-bin/vistrel-camera-extension-helper-testable' "
                                                      "--test-root='%1' \"$@\"").arg(machine.root()));
        QFile policy(config.policyPath);
        policy.open(QIODevice::WriteOnly);
        policy.write("<policyconfig/>\n");
        setPkexec(QStringLiteral("exec \"$@\""));
    }
    // The stand-in logs each start, then does `body`.
    void setPkexec(const QString &body)
    {
        writeScript(config.pkexecPath, QStringLiteral("echo \"$*\" >> '%1/kernel/pkexec-log'\n").arg(machine.root()) + body);
    }
    int pkexecRuns() const
    {
        return machine.read(QStringLiteral("kernel/pkexec-log")).count(QLatin1Char('\n'));
    }
    // Submits one request and waits for its last answer.
    std::vector<Answer> submit(sysext::RequestKind kind = sysext::RequestKind::Activation, int replacement = sysext::Replace)
    {
        sysext::HelperExtensionManager manager(config);
        auto delegate = std::make_shared<RecordingDelegate>();
        delegate->replacementAnswer = replacement;
        manager.submitRequest({kind, FakeLoopbackMachine::kIdentifier, delegate});
        EXPECT_TRUE(delegate->answers.empty()) << "answers never arrive inside submitRequest";
        const auto done = [&] {
            return !delegate->answers.empty() && delegate->answers.back().kind != QStringLiteral("replace");
        };
        EXPECT_TRUE(QTest::qWaitFor(done, 20000)) << "no answer";
        QTest::qWait(20); // nothing else follows
        return delegate->answers;
    }
    static Answer only(const std::vector<Answer> &answers)
    {
        EXPECT_EQ(answers.size(), 1u);
        return answers.empty() ? Answer{} : answers.front();
    }

    FakeLoopbackMachine machine;
    sysext::HelperExtensionManager::Config config;
};

} // namespace

TEST_F(ManagerTest, ActivationRunsTheHelperOnceAndAnAlreadyActiveExtensionAsksForNothing)
{
    machine.installModule(QStringLiteral("0.12.7"));
    Answer answer = only(submit());
    EXPECT_EQ(answer.kind, QStringLiteral("finished"));
    EXPECT_EQ(answer.value, sysext::Completed);
    EXPECT_EQ(pkexecRuns(), 1);
    EXPECT_TRUE(machine.read(QStringLiteral("kernel/pkexec-log")).startsWith(config.helperPath + QStringLiteral(" activate ") + FakeLoopbackMachine::kIdentifier));

    answer = only(submit());
    EXPECT_EQ(answer.kind, QStringLiteral("finished"));
    EXPECT_EQ(pkexecRuns(), 1) << "no password prompt when nothing would change";

    answer = only(submit(sysext::RequestKind::Deactivation));
    EXPECT_EQ(answer.kind, QStringLiteral("finished"));
    EXPECT_EQ(answer.value, sysext::Completed);
    EXPECT_EQ(pkexecRuns(), 2);
    only(submit(sysext::RequestKind::Deactivation));
    EXPECT_EQ(pkexecRuns(), 2) << "nothing left to remove";
}

TEST_F(ManagerTest, HelperOutcomesAndPkexecStatusesMapToTheirAnswers)
{
    struct Case
    {
        const char *name;
        QString pkexec;
        bool module;
        bool keyRejected;
        QString kind;
        int value;
    };
    const Case cases[] = {
        {"prompt dismissed", QStringLiteral("exit 126"), true, false, QStringLiteral("failed"), sysext::RequestCanceled},
        {"not authorised", QStringLiteral("echo 'Not authorized.' >&2; exit 127"), true, false, QStringLiteral("failed"), sysext::AuthorizationRequired},
        {"helper crashed", QStringLiteral("kill -SEGV $$"), true, false, QStringLiteral("failed"), sysext::UnknownError},
        {"helper silent", QStringLiteral("exit 0"), true, false, QStringLiteral("failed"), sysext::UnknownError},
        {"module missing", QStringLiteral("exec \"$@\""), false, false, QStringLiteral("failed"), sysext::ModuleNotInstalled},
        {"key rejected", QStringLiteral("exec \"$@\""), true, true, QStringLiteral("approval"), 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        FakeLoopbackMachine fresh;
        config.extensionsDir = fresh.path(QStringLiteral("share/vistrel/SystemExtensions"));
        config.roots = {fresh.path(QStringLiteral("sys")), fresh.path(QStringLiteral("etc")), QStringLiteral("/dev")};
        writeScript(config.helperPath, QStringLiteral("exec '" VISTREL_BINARY_DIR "/test-bin/vistrel-camera-extension-helper-testable' "
                                                      "--test-root='%1' \"$@\"").arg(fresh.root()));
        if (c.module)
            fresh.installModule(QStringLiteral("0.12.7"));
        if (c.keyRejected)
            fresh.rejectModuleKey();
        setPkexec(c.pkexec);
        const Answer answer = only(submit());
        EXPECT_EQ(answer.kind, c.kind) << answer.text.toStdString();
        EXPECT_EQ(answer.value, c.value) << answer.text.toStdString();
        if (answer.kind == QStringLiteral("failed")) {
            EXPECT_EQ(answer.domain, sysext::kSystemExtensionErrorDomain);
            EXPECT_FALSE(answer.text.isEmpty());
        }
    }
}

TEST_F(ManagerTest, AnAppThatIsNotInstalledFailsWithCodeThreeWithoutAPrompt)
{
    machine.installModule(QStringLiteral("0.12.7"));
    const QString helper = config.helperPath;
    const std::vector<std::pair<const char *, std::function<void()>>> problems = {
        {"helper missing", [&] { config.helperPath = machine.path(QStringLiteral("app/none")); }},
        {"helper writable by others", [&] { QFile::setPermissions(helper, QFile::permissions(helper) | QFile::WriteOther); }},
        {"helper of another owner (a build tree)", [&] { config.helperOwner = ::geteuid() + 1; }},
        {"policy missing", [&] { QFile::remove(config.policyPath); }},
    };
    for (const auto &[name, breakIt] : problems) {
        SCOPED_TRACE(name);
        SetUp();
        breakIt();
        const Answer answer = only(submit());
        EXPECT_EQ(answer.kind, QStringLiteral("failed"));
        EXPECT_EQ(answer.value, sysext::UnsupportedParentBundleLocation) << answer.text.toStdString();
        EXPECT_EQ(answer.domain, sysext::kSystemExtensionErrorDomain);
    }
    EXPECT_EQ(pkexecRuns(), 0);
}

TEST_F(ManagerTest, ADifferentInstalledVersionIsReplacedOnlyWithTheDelegatesConsent)
{
    machine.installModule(QStringLiteral("0.12.7"));
    machine.write(QStringLiteral("etc/modprobe.d/") + FakeLoopbackMachine::kIdentifier + QStringLiteral(".conf"),
                  QStringLiteral("# vistrel-extension identifier=%1 version=0.9 state=installed\n"
                                 "options v4l2loopback devices=1 card_label=Vistrel\n").arg(FakeLoopbackMachine::kIdentifier));

    std::vector<Answer> answers = submit(sysext::RequestKind::Activation, sysext::CancelReplacement);
    ASSERT_EQ(answers.size(), 2u);
    EXPECT_EQ(answers[0].text, QStringLiteral("0.9 -> 1.0"));
    EXPECT_EQ(answers[1].kind, QStringLiteral("failed"));
    EXPECT_EQ(answers[1].value, sysext::RequestCanceled);
    EXPECT_EQ(pkexecRuns(), 0);

    answers = submit();
    ASSERT_EQ(answers.size(), 2u);
    EXPECT_EQ(answers[0].kind, QStringLiteral("replace"));
    EXPECT_EQ(answers[1].kind, QStringLiteral("finished"));
    EXPECT_TRUE(machine.read(machine.modprobeFile()).contains(QStringLiteral("version=1.0")));
}
