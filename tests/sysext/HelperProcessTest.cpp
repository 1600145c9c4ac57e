// The privileged helper run as a real child process: its test build against a fake
// machine in a temporary folder, never the real /etc.
#include "FakeLoopbackMachine.h"

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

// out: the one output line, or all of them in <> when there are several or none.
struct HelperRun { QString out; int exitCode; bool crashed; QString errors; };

HelperRun run(const QStringList &arguments, const QString &program = VISTREL_BINARY_DIR "/test-bin/vistrel-camera-extension-helper-testable")
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
    EXPECT_EQ(helper("status"), "status identifier=app.vistrel.Vistrel.cameraextension installed=1.0 state=installed "
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
    struct Case { const char *name; std::function<void(Machine &)> setUp; const char *outcome; bool record; const char *tool; };
    const auto loaded = [](const char *version, int users) { return [=](Machine &m) { m.loadModule(version, "OBS Virtual Camera", users); }; };
    const Case cases[] = {
        {"no module", [](Machine &) {}, "outcome failed 4 ", false, nullptr},
        // Debian 12's v4l2loopback carries no version and was once refused as not installed.
        {"module without a version", [](Machine &m) { m.installModule(QString()); }, "outcome completed", true, "modprobe v4l2loopback"},
        // The record stays, so the module loads once its key is enrolled.
        {"key rejected", [](Machine &m) { m.installModule("0.12.7"); m.rejectModuleKey(); }, "outcome needs-approval", true, nullptr},
        {"0.12.7 loaded, idle", loaded("0.12.7", 0), "outcome completed", true, "modprobe -r v4l2loopback"},
        {"0.12.7 loaded, in use", loaded("0.12.7", 1), "outcome reboot", true, nullptr},
        {"0.13.2 loaded, in use", loaded("0.13.2", 1), "outcome completed", true, "v4l2loopback-ctl add -n Vistrel -x 1"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Machine m;
        c.setUp(m);
        const QString out = ::helper(m, "activate");
        EXPECT_TRUE(out.startsWith(c.outcome)) << out.toStdString();
        EXPECT_EQ(QFileInfo::exists(m.modprobeFile()), c.record);
        EXPECT_EQ(m.toolLog().filter(c.tool ? c.tool : "-r").size(), c.tool ? 1 : 0) << m.toolLog().join('|').toStdString();
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
    EXPECT_FALSE(QDirIterator(machine.path("etc"), QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories).hasNext());
    EXPECT_TRUE(machine.toolLog().isEmpty()) << "no tool was run";

    // The installed helper has no test switches at all: its folders cannot be moved.
    const HelperRun installed = run({root, "status", kId}, VISTREL_BINARY_DIR "/libexec/vistrel/vistrel-camera-extension-helper");
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
    EXPECT_EQ(dir.entryList({"*.conf"}, QDir::Files | QDir::Hidden), QStringList{kId + ".conf"}) << "modprobe ignores the temporary";

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
    QFile::setPermissions(machine.path(bundled), QFile::ReadOwner | QFile::WriteOwner | QFile::ReadOther | QFile::WriteOther);
    EXPECT_TRUE(helper("activate").contains("not installed safely"));
    EXPECT_FALSE(QFileInfo::exists(machine.modprobeFile())) << "refused before anything is written";
}

TEST_F(HelperProcessTest, OnlyTheOptionsModprobeReadsReachTheLoopbackToolAndHostileOnesAreRefused)
{
    // 0.13 in use: the camera is added with v4l2loopback-ctl, from the bundle's options.
    struct Case { const char *name; QString config; const char *outcome; const char *added; };
    const Case cases[] = {
        {"a label in a comment is no option", "# card_label=$(reboot) exclusive_caps=0\n  # card_label=Other\n\n"
                                              "options v4l2loopback devices=1 card_label=Vistrel exclusive_caps=1\n",
         "outcome completed", "-n Vistrel -x 1"},
        {"tabs separate as spaces do", "options\tv4l2loopback\tdevices=1 \tcard_label=Vistrel\texclusive_caps=0\n",
         "outcome completed", "-n Vistrel -x 0"},
        {"a label an option of the tool", "options v4l2loopback card_label=--help\n", "outcome failed 1 refusing", nullptr},
        {"caps neither 0 nor 1", "options v4l2loopback card_label=Vistrel exclusive_caps=2\n", "outcome failed 1 refusing", nullptr},
        {"caps not a number", "options v4l2loopback card_label=Vistrel exclusive_caps=yes\n", "outcome failed 1 refusing", nullptr},
        {"devices not a number", "options v4l2loopback devices=one card_label=Vistrel\n", "outcome failed 1 refusing", nullptr},
        {"video_nr not numbers", "options v4l2loopback video_nr=10,x card_label=Vistrel\n", "outcome failed 1 refusing", nullptr},
        {"a label longer than a device name", "options v4l2loopback card_label=" + QString(40, 'V') + "\n", "outcome failed 1 refusing", nullptr},
        // modprobe would hand the words after '#' to the kernel as options.
        {"a comment after an option", "options v4l2loopback devices=1 # card_label=Other\n", "outcome failed 1 refusing", nullptr},
        // modprobe joins the next line to a line ending in a backslash, comment or not.
        {"a continued comment", "# note \\\noptions v4l2loopback card_label=Vistrel\n", "outcome failed 1 refusing", nullptr},
        {"a key set twice", "options v4l2loopback card_label=Vistrel\noptions v4l2loopback card_label=Other\n", "outcome failed 1 refusing", nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        FakeLoopbackMachine m;
        m.loadModule("0.13.2", "OBS Virtual Camera", 1);
        m.write("share/vistrel/SystemExtensions/" + kId + "/modprobe.conf", c.config);
        const QString out = ::helper(m, "activate");
        EXPECT_TRUE(out.startsWith(c.outcome)) << out.toStdString();
        const QStringList added = m.toolLog().filter("v4l2loopback-ctl");
        if (c.added) {
            EXPECT_EQ(added.join('|').toStdString(), std::string("v4l2loopback-ctl add ") + c.added);
            EXPECT_TRUE(m.read(m.modprobeFile()).endsWith(c.config)) << "installed as bundled";
        } else {
            EXPECT_TRUE(added.isEmpty()) << added.join('|').toStdString();
            EXPECT_FALSE(QFileInfo::exists(m.modprobeFile()));
        }
    }
}

TEST_F(HelperProcessTest, ABundleWithTwoFaultsIsReportedByTheFirst)
{
    const QString bundle = "share/vistrel/SystemExtensions/" + kId + "/";
    machine.write(bundle + "manifest", QString(70 * 1024, '#'));
    machine.write(bundle + "modprobe.conf", QString(70 * 1024, '#'));
    const QString out = helper("activate");
    EXPECT_TRUE(out.startsWith("outcome failed 1 ") && out.contains(bundle + "manifest") && !out.contains("modprobe.conf"))
        << out.toStdString();
}

TEST_F(HelperProcessTest, RunsTakeTurnsSoParallelRequestsLeaveEtcWhole)
{
    machine.installModule("0.12.7");
    const QString bundle = "share/vistrel/SystemExtensions/" + kId + "/";
    const QString record = kRecord + "1.0 state=installed\n";
    const QDir modprobeDir(machine.path("etc/modprobe.d")), modulesLoadDir(machine.path("etc/modules-load.d"));
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        std::vector<std::unique_ptr<QProcess>> runs;
        for (int i = 0; i < 40; ++i) {
            runs.push_back(std::make_unique<QProcess>());
            runs.back()->start(VISTREL_BINARY_DIR "/test-bin/vistrel-camera-extension-helper-testable",
                               {"--test-root=" + machine.root(), i % 2 ? "deactivate" : "activate", kId});
        }
        QStringList outcomes;
        for (const auto &process : runs) {
            EXPECT_TRUE(process->waitForFinished(60000));
            outcomes << QString::fromUtf8(process->readAllStandardOutput()).trimmed();
        }
        EXPECT_EQ(outcomes.filter("outcome completed").size(), 40) << outcomes.join('|').toStdString();
        const bool installed = QFileInfo::exists(machine.modprobeFile());
        EXPECT_EQ(QFileInfo::exists(machine.modulesLoadFile()), installed) << "both files or neither";
        if (installed) {
            EXPECT_EQ(machine.read(machine.modprobeFile()), record + machine.read(bundle + "modprobe.conf"));
            EXPECT_EQ(machine.read(machine.modulesLoadFile()), record + machine.read(bundle + "modules-load.conf"));
        }
        const std::string expected = installed ? (kId + ".conf").toStdString() : std::string();
        for (const QDir &dir : {modprobeDir, modulesLoadDir})
            EXPECT_EQ(dir.entryList(QDir::Files | QDir::Hidden | QDir::System).join('|').toStdString(), expected) << "no temporaries left";
    }
}

TEST_F(HelperProcessTest, ARunWaitsForTheLockABoundedTimeRefusesAForeignLockFileAndLeavesOthersTemporaries)
{
    machine.installModule("0.12.7");
    const QString lockPath = machine.path("run/vistrel-camera-extension.lock");
    const QStringList waitBriefly = {"--test-root=" + machine.root(), "--test-lock-wait=300", "activate", kId};
    {
        QFile held(lockPath);
        ASSERT_TRUE(held.open(QIODevice::ReadWrite));
        ASSERT_EQ(::flock(held.handle(), LOCK_EX), 0);
        const HelperRun waited = run(waitBriefly);
        EXPECT_TRUE(waited.out.startsWith("outcome failed 1 ") && waited.out.contains("still running")) << waited.out.toStdString();
        EXPECT_FALSE(QFileInfo::exists(machine.modprobeFile())) << "nothing done without the lock";
    }
    EXPECT_EQ(run(waitBriefly).out, "outcome completed") << "the lock is free again";

    // A temporary that its writer still holds is not taken for one a killed run left.
    const QString temporary = machine.path("etc/modprobe.d/." + kId + ".conf.vistrel-AbCd12");
    {
        QFile writing(temporary);
        ASSERT_TRUE(writing.open(QIODevice::WriteOnly));
        ASSERT_EQ(::flock(writing.handle(), LOCK_EX), 0);
        EXPECT_EQ(helper("activate"), "outcome completed");
        EXPECT_TRUE(QFileInfo::exists(temporary));
    }
    EXPECT_EQ(helper("activate"), "outcome completed");
    EXPECT_FALSE(QFileInfo::exists(temporary)) << "abandoned once its writer is gone";

    // A link in place of the lock file is not followed.
    machine.write("victim", "precious\n");
    QFile::remove(lockPath);
    QFile::link(machine.path("victim"), lockPath);
    const HelperRun linked = run({"--test-root=" + machine.root(), "deactivate", kId});
    EXPECT_TRUE(linked.out.startsWith("outcome failed 1 ") && linked.out.contains(lockPath)) << linked.out.toStdString();
    EXPECT_TRUE(QFileInfo::exists(machine.modprobeFile())) << "nothing done without the lock";
    EXPECT_EQ(machine.read("victim"), "precious\n");
}
