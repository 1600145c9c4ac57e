// The privileged helper run as a real child process: its test build against a fake
// machine in a temporary folder, never the real /etc.
#include "FakeLoopbackMachine.h"
#include "vcam/v4l2loopback/VideoDeviceList.h"

#include <QDirIterator>
#include <QFileInfo>
#include <QProcess>
#include <gtest/gtest.h>
#include <memory>
#include <sys/file.h>

using vistrel::test::FakeLoopbackMachine;

namespace {

const QString kId = FakeLoopbackMachine::kIdentifier;
const QString kRecord = "# vistrel-extension identifier=" + kId + " version=";
const QString kBundle = "share/vistrel/SystemExtensions/" + kId + "/";
const QString kTestable = VISTREL_BINARY_DIR "/test-bin/vistrel-camera-extension-helper-testable";

// out: the one output line, or all of them in <> when there are several or none.
struct HelperRun
{
    QString out;
    int exitCode;
    bool crashed;
    QString errors;
};

HelperRun run(const QStringList &arguments, const QString &program = kTestable)
{
    QProcess process;
    process.start(program, arguments);
    process.waitForFinished(20000);
    const QStringList lines = QString::fromUtf8(process.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts);
    return {lines.size() == 1 ? lines[0] : "<" + lines.join('|') + ">", process.exitCode(),
            process.exitStatus() == QProcess::CrashExit, QString::fromUtf8(process.readAllStandardError())};
}

QString helper(const FakeLoopbackMachine &machine, const QString &verb)
{
    return run({"--test-root=" + machine.root(), verb, kId}).out;
}

class HelperProcessTest : public ::testing::Test
{
protected:
    QString helper(const QString &verb) { return ::helper(machine, verb); }
    FakeLoopbackMachine machine;
};

} // namespace

TEST_F(HelperProcessTest, ActivationIsSafeToRepeatAndAnOpenCameraLeavesAnInertRecordUntilReboot)
{
    machine.installModule("0.12.7");
    // The files' exact content is checked where the manager finds nothing left to do.
    EXPECT_EQ(helper("activate"), "outcome completed");
    const QDateTime written = QFileInfo(machine.modprobeFile()).lastModified();
    EXPECT_EQ(helper("activate"), "outcome completed");
    EXPECT_EQ(machine.toolLog().filter("modprobe v4l2loopback").size(), 1) << "loaded once";
    EXPECT_EQ(QFileInfo(machine.modprobeFile()).lastModified(), written) << "an identical file is not rewritten";
    EXPECT_EQ(helper("status"),
              "status identifier=app.vistrel.Vistrel.cameraextension installed=1.0 state=installed "
              "module=loaded moduleVersion=0.12.7 camera=/dev/video10");

    // A camera that is open cannot go before the next boot.
    machine.setUseCount(1);
    EXPECT_EQ(helper("deactivate"), "outcome reboot");
    EXPECT_EQ(machine.read(machine.modprobeFile()), kRecord + "1.0 state=removed\n") << "the record sets nothing";
    EXPECT_FALSE(QFileInfo::exists(machine.modulesLoadFile())) << "not loaded at the next boot";
    // Once closed it goes, though the modules-load file is already gone. That files and camera
    // are gone is checked where the manager finds nothing left to remove.
    machine.setUseCount(0);
    EXPECT_EQ(helper("deactivate"), "outcome completed");
}

TEST_F(HelperProcessTest, TheActivationOutcomeFollowsTheStateOfTheModule)
{
    using Machine = FakeLoopbackMachine;
    // outcome: how the one output line starts; tool: a run that appears once in the tool log (none: no unload).
    struct Case
    {
        const char *name;
        std::function<void(Machine &)> setUp;
        const char *outcome;
        bool record;
        const char *tool;
    };
    const auto loaded = [](const char *version, int users) {
        return [=](Machine &m) { m.loadModule(version, "OBS Virtual Camera", users); };
    };
    const Case cases[] = {
        {"no module", [](Machine &) {}, "outcome failed 4 ", false, nullptr},
        // Debian 12's v4l2loopback carries no version and was once refused as not installed.
        {"module without a version", [](Machine &m) { m.installModule(QString()); }, "outcome completed", true,
         "modprobe v4l2loopback"},
        // The record stays, so the module loads once its key is enrolled.
        {"key rejected",
         [](Machine &m) {
             m.installModule("0.12.7");
             m.refuseModule("Key was rejected by service");
         },
         "outcome needs-approval", true, nullptr},
        {"0.12.7 loaded, idle", loaded("0.12.7", 0), "outcome completed", true, "modprobe -r v4l2loopback"},
        {"0.12.7 loaded, in use", loaded("0.12.7", 1), "outcome reboot", true, nullptr},
        {"0.13.2 loaded, in use", loaded("0.13.2", 1), "outcome completed", true,
         "v4l2loopback-ctl add -n Vistrel -x 1"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Machine m;
        c.setUp(m);
        const QString out = ::helper(m, "activate");
        EXPECT_TRUE(out.startsWith(c.outcome)) << out.toStdString();
        EXPECT_EQ(QFileInfo::exists(m.modprobeFile()), c.record);
        EXPECT_EQ(m.toolLog().filter(c.tool ? c.tool : "-r").size(), c.tool ? 1 : 0)
            << m.toolLog().join('|').toStdString();
    }
}

// Under Secure Boot the kernel is locked down and refuses a module signed by a key it
// does not know; enrolling the key at the next boot is the way out. Any other refusal
// is an ordinary failure that carries modprobe's reason.
TEST_F(HelperProcessTest, AModuleTheKernelRefusesNeedsApprovalOnlyWhenItsSigningKeyIsTheReason)
{
    struct Case
    {
        const char *error;    // modprobe's reason
        const char *lockdown; // /sys/kernel/security/lockdown; null: no such file
        bool needsApproval;
    };
    const Case cases[] = {
        {"Key was rejected by service", "[none] integrity confidentiality", true},
        {"Operation not permitted", "none [integrity] confidentiality", true},
        {"Required key not available", "none integrity [confidentiality]", true},
        {"Operation not permitted", "[none] integrity confidentiality", false},
        {"Required key not available", nullptr, false},
        {"Invalid argument", "none [integrity] confidentiality", false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.error) + ", lockdown " + (c.lockdown ? c.lockdown : "absent"));
        FakeLoopbackMachine m;
        m.installModule("0.12.7");
        m.refuseModule(c.error);
        if (c.lockdown)
            m.setLockdown(c.lockdown);
        const QString out = ::helper(m, "activate");
        if (c.needsApproval)
            EXPECT_EQ(out, "outcome needs-approval");
        else
            EXPECT_TRUE(out.startsWith("outcome failed 1 ") && out.endsWith(QString(": ") + c.error))
                << out.toStdString();
    }
}

TEST_F(HelperProcessTest, HostileArgumentsAreRefusedWithOneLineAndNoChange)
{
    const QString root = "--test-root=" + machine.root();
    const QList<QStringList> hostile = {
        {root, "activate"},
        {root, "install", kId},
        {root, "activate", "../../../etc/passwd"},
        {root, "activate", "app.vistrel/evil"},
        {root, "activate", QString()},
        {root, "activate", "app.vistrel.Other.cameraextension"}, // not in the bundle
        {"--test-root=relative", "activate", kId},
    };
    for (const QStringList &arguments : hostile) {
        SCOPED_TRACE(arguments.join(' ').toStdString());
        const HelperRun refused = run(arguments);
        EXPECT_TRUE(refused.out.startsWith("outcome failed 1 ")) << refused.out.toStdString();
        EXPECT_TRUE(refused.exitCode != 126 && refused.exitCode != 127) << "pkexec's own codes";
        EXPECT_FALSE(refused.errors.isEmpty()) << "the reason is explained";
    }
    EXPECT_FALSE(
        QDirIterator(machine.path("etc"), QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories)
            .hasNext());
    EXPECT_TRUE(machine.toolLog().isEmpty()) << "no tool was run";

    // The installed helper has no test switches at all: its folders cannot be moved.
    const HelperRun installed =
        run({root, "status", kId}, VISTREL_BINARY_DIR "/libexec/vistrel/vistrel-camera-extension-helper");
    EXPECT_TRUE(installed.out.startsWith("outcome failed 1 "));
    EXPECT_EQ(installed.exitCode, 2);
}

TEST_F(HelperProcessTest, FilesOnDiskAreNeverHalfWrittenAndUnexpectedOnesAreLeftAloneAndRefused)
{
    machine.installModule("0.12.7");
    // An interrupted write.
    const QString old = kRecord + "0.9 state=installed\noptions v4l2loopback devices=1 card_label=Vistrel\n";
    machine.write(machine.modprobeFile(), old);
    const QDir dir(machine.path("etc/modprobe.d"));

    EXPECT_TRUE(run({"--test-root=" + machine.root(), "--test-crash-mid-write", "activate", kId}).crashed);
    EXPECT_EQ(machine.read(machine.modprobeFile()), old) << "never half-written";
    EXPECT_EQ(dir.entryList(QDir::Files | QDir::Hidden).size(), 2) << "the old file and the abandoned temporary";
    EXPECT_EQ(dir.entryList({"*.conf"}, QDir::Files | QDir::Hidden), QStringList{kId + ".conf"})
        << "modprobe ignores the temporary";

    EXPECT_EQ(helper("activate"), "outcome completed");
    EXPECT_EQ(dir.entryList(QDir::Files | QDir::Hidden), QStringList{kId + ".conf"}) << "the temporary is cleaned up";

    // A link in place of the record.
    machine.write("victim", "precious\n");
    QFile::remove(machine.modprobeFile());
    QFile::link(machine.path("victim"), machine.modprobeFile());
    EXPECT_TRUE(helper("activate").startsWith("outcome failed 1 "));
    EXPECT_EQ(machine.read("victim"), "precious\n");

    // A file of the same name that Vistrel did not write.
    QFile::remove(machine.modprobeFile());
    machine.write(machine.modprobeFile(), "options snd x=1\n");
    EXPECT_TRUE(helper("deactivate").startsWith("outcome failed 1 "));
    EXPECT_EQ(machine.read(machine.modprobeFile()), "options snd x=1\n");

    // A bundled configuration that would run a command as root, or that others may edit.
    QFile::remove(machine.modprobeFile());
    const QString bundled = "share/vistrel/SystemExtensions/" + kId + "/modprobe.conf";
    const QString original = machine.read(bundled);
    machine.write(bundled, original + "install v4l2loopback /bin/sh -c 'id > /tmp/owned'\n");
    EXPECT_TRUE(helper("activate").startsWith("outcome failed 1 refusing"));
    machine.write(bundled, original);
    QFile::setPermissions(machine.path(bundled),
                          QFile::ReadOwner | QFile::WriteOwner | QFile::ReadOther | QFile::WriteOther);
    EXPECT_TRUE(helper("activate").contains("not installed safely"));
    EXPECT_FALSE(QFileInfo::exists(machine.modprobeFile())) << "refused before anything is written";
}

TEST_F(HelperProcessTest, OnlyTheOptionsModprobeReadsReachTheLoopbackToolAndHostileOnesAreRefused)
{
    // 0.13 in use: the camera is added with v4l2loopback-ctl from the bundle's options; null: refused.
    const std::pair<QString, const char *> cases[] = {
        {"# card_label=$(reboot) exclusive_caps=0\n  # card_label=Other\n\noptions v4l2loopback devices=1 card_label=Vistrel exclusive_caps=1\n",
         "-n Vistrel -x 1"},
        {"options\tv4l2loopback\tdevices=1 \tcard_label=Vistrel\texclusive_caps=0\n", "-n Vistrel -x 0"},
        {"options v4l2loopback card_label=--help\n", nullptr},
        {"options v4l2loopback card_label=" + QString(40, 'V') + "\n", nullptr},
        {"options v4l2loopback card_label=Vistrel exclusive_caps=2\n", nullptr},
        {"options v4l2loopback devices=one card_label=Vistrel\n", nullptr},
        {"options v4l2loopback video_nr=10,x card_label=Vistrel\n", nullptr},
        {"# note \\\noptions v4l2loopback card_label=Vistrel\n", nullptr}, // modprobe continues a comment too
        {"options v4l2loopback card_label=Vistrel\noptions v4l2loopback card_label=Other\n", nullptr},
    };
    for (const auto &[config, added] : cases) {
        SCOPED_TRACE(config.toStdString());
        FakeLoopbackMachine m;
        m.loadModule("0.13.2", "OBS Virtual Camera", 1);
        m.write(kBundle + "modprobe.conf", config);
        const QString out = ::helper(m, "activate");
        EXPECT_TRUE(out.startsWith(added ? "outcome completed" : "outcome failed 1 refusing")) << out.toStdString();
        EXPECT_EQ(m.toolLog().filter("v4l2loopback-ctl").join('|').toStdString(),
                  added ? "v4l2loopback-ctl add " + std::string(added) : "");
        EXPECT_EQ(QFileInfo::exists(m.modprobeFile()), added != nullptr);
    }
}

TEST_F(HelperProcessTest, ABundleWithTwoFaultsIsReportedByTheFirst)
{
    for (const char *file : {"manifest", "modprobe.conf"})
        machine.write(kBundle + file, QString(70 * 1024, '#'));
    const QString out = helper("activate");
    EXPECT_TRUE(out.startsWith("outcome failed 1 ") && out.contains(kBundle + "manifest")
                && !out.contains("modprobe.conf"))
        << out.toStdString();
}

TEST_F(HelperProcessTest, RunsTakeTurnsSoParallelRequestsLeaveEtcWhole)
{
    machine.installModule("0.12.7");
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        std::vector<std::unique_ptr<QProcess>> runs(40);
        for (std::size_t i = 0; i < runs.size(); ++i) {
            runs[i] = std::make_unique<QProcess>();
            runs[i]->start(kTestable, {"--test-root=" + machine.root(), i % 2 ? "deactivate" : "activate", kId});
        }
        QStringList outcomes;
        for (const auto &process : runs)
            outcomes << (process->waitForFinished(60000) ? QString::fromUtf8(process->readAllStandardOutput()).trimmed()
                                                         : "hung");
        EXPECT_EQ(outcomes.filter("outcome completed").size(), 40) << outcomes.join('|').toStdString();
        // Both files whole or neither, and no temporaries left.
        const bool installed = QFileInfo::exists(machine.modprobeFile());
        for (const QString kind : {"modprobe", "modules-load"}) {
            const QString file = machine.path("etc/" + kind + ".d/" + kId + ".conf");
            EXPECT_EQ(machine.read(file),
                      installed ? kRecord + "1.0 state=installed\n" + machine.read(kBundle + kind + ".conf") : "");
            EXPECT_EQ(
                QDir(machine.path("etc/" + kind + ".d")).entryList(QDir::Files | QDir::Hidden | QDir::System).join('|'),
                installed ? kId + ".conf" : "");
        }
    }
}

TEST_F(HelperProcessTest, ARunWaitsForTheLockABoundedTimeRefusesAForeignLockFileAndLeavesOthersTemporaries)
{
    machine.installModule("0.12.7");
    const QString lockPath = machine.path("run/vistrel-camera-extension.lock");
    const auto holdLocked = [](const QString &path) {
        auto file = std::make_unique<QFile>(path);
        EXPECT_TRUE(file->open(QIODevice::ReadWrite) && ::flock(file->handle(), LOCK_EX) == 0);
        return file;
    };
    auto held = holdLocked(lockPath);
    const QString waited = run({"--test-root=" + machine.root(), "--test-lock-wait=300", "activate", kId}).out;
    EXPECT_TRUE(waited.startsWith("outcome failed 1 ") && waited.contains("still running")) << waited.toStdString();
    EXPECT_FALSE(QFileInfo::exists(machine.modprobeFile())) << "nothing done without the lock";

    // Once it is free: a temporary its writer still holds is not taken for one a killed run left.
    const QString temporary = machine.path("etc/modprobe.d/." + kId + ".conf.vistrel-AbCd12");
    held = holdLocked(temporary);
    EXPECT_EQ(helper("activate"), "outcome completed");
    EXPECT_TRUE(QFileInfo::exists(temporary));

    // A link in place of the lock file is not followed.
    machine.write("victim", "precious\n");
    QFile::remove(lockPath);
    QFile::link(machine.path("victim"), lockPath);
    const QString linked = helper("deactivate");
    EXPECT_TRUE(linked.startsWith("outcome failed 1 ") && linked.contains(lockPath)) << linked.toStdString();
    EXPECT_TRUE(QFileInfo::exists(machine.modprobeFile())) << "nothing done without the lock";
    EXPECT_EQ(machine.read("victim"), "precious\n");
}

namespace {

// The app's device list and the helper go by the same rule: each kind of sysfs entry is a
// loopback device for both or for neither (the helper names it as the camera or not).
TEST(LoopbackNodeRuleTest, TheAppAndTheHelperTellLoopbackDevicesApartAlike)
{
    // A link named `at` in the entry to the folder `target` of the machine's sysfs.
    using Links = std::vector<std::pair<const char *, const char *>>;
    struct Case
    {
        const char *name;
        Links links;
        bool maxOpeners;
        bool loopback;
    };
    const Case cases[] = {
        {"driver link to v4l2loopback",
         {{"device", "devices/platform/v4l2loopback.0"}, {"device/driver", "bus/platform/drivers/v4l2loopback"}},
         false,
         true},
        {"device link, no driver", {{"device", "devices/virtual/v4l2loopback"}}, false, true},
        {"max_openers only", {}, true, true},
        // Another driver decides, whatever the entry's attributes say.
        {"driver link to uvcvideo",
         {{"device", "devices/usb1/1-1:1.0"}, {"device/driver", "bus/usb/drivers/uvcvideo"}},
         true,
         false},
        {"nothing of the module", {}, false, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        FakeLoopbackMachine m;
        m.loadModule("0.13.2", "Other");
        const QString entry = m.path("sys/class/video4linux/video11");
        m.write(entry + "/name", "Vistrel\n");
        for (const auto &[at, target] : c.links) {
            ASSERT_TRUE(QDir().mkpath(m.path("sys/") + target));
            ASSERT_TRUE(QFile::link(m.path("sys/") + target, entry + "/" + at));
        }
        if (c.maxOpeners)
            m.write(entry + "/max_openers", "10\n");
        const auto devices = vistrel::vcam::listVideoDevices(m.path("sys"), "/dev");
        ASSERT_EQ(devices.size(), 2u);
        EXPECT_EQ(devices[1].isLoopback(), c.loopback);
        EXPECT_TRUE(helper(m, "status").endsWith(c.loopback ? " camera=/dev/video11" : " camera=none"))
            << helper(m, "status").toStdString();
    }
}

} // namespace
