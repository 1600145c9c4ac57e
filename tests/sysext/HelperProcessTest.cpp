// The privileged helper run as a real child process: its test build against a fake
// machine in a temporary folder, never the real /etc.
#include "FakeLoopbackMachine.h"

#include <QDirIterator>
#include <QFileInfo>
#include <QProcess>
#include <gtest/gtest.h>

using vistrel::test::FakeLoopbackMachine;

namespace {

const QString kTestableHelper = QStringLiteral(VISTREL_BINARY_DIR "/test-bin/vistrel-camera-extension-helper-testable");
const QString kInstalledHelper = QStringLiteral(VISTREL_BINARY_DIR "/libexec/vistrel/vistrel-camera-extension-helper");

struct HelperRun
{
    int exitCode = -1;
    bool crashed = false;
    QStringList lines;
    QString errors;
};

HelperRun runProgram(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.start(program, arguments);
    process.waitForFinished(20000);
    HelperRun run;
    run.crashed = process.exitStatus() == QProcess::CrashExit;
    run.exitCode = process.exitCode();
    run.lines = QString::fromUtf8(process.readAllStandardOutput()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    run.errors = QString::fromUtf8(process.readAllStandardError());
    return run;
}

// Every file under etc/, with its content, to prove that a refused run changed nothing.
QMap<QString, QString> snapshotEtc(const FakeLoopbackMachine &machine)
{
    QMap<QString, QString> files;
    QDirIterator it(machine.path(QStringLiteral("etc")), QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString file = it.next();
        files.insert(file, QFileInfo(file).isSymLink() ? QStringLiteral("-> ") + QFileInfo(file).symLinkTarget()
                                                       : machine.read(file));
    }
    return files;
}

class HelperProcessTest : public ::testing::Test
{
protected:
    HelperRun helper(const QString &verb, const QStringList &extra = {})
    {
        return runProgram(kTestableHelper, QStringList{QStringLiteral("--test-root=") + machine.root()} + extra
                                               + QStringList{verb, FakeLoopbackMachine::kIdentifier});
    }
    QStringList leftovers(const QString &dir)
    {
        return QDir(machine.path(dir)).entryList(QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot);
    }

    FakeLoopbackMachine machine;
};

} // namespace

TEST_F(HelperProcessTest, ActivatingInstallsTheRecordLoadsTheModuleAndIsSafeToRepeat)
{
    machine.installModule(QStringLiteral("0.12.7"));
    const HelperRun first = helper(QStringLiteral("activate"));
    EXPECT_EQ(first.lines, QStringList{QStringLiteral("outcome completed")}) << first.errors.toStdString();
    EXPECT_EQ(first.exitCode, 0);

    const QString installed = machine.read(machine.modprobeFile());
    EXPECT_TRUE(installed.startsWith(QStringLiteral(
        "# vistrel-extension identifier=app.vistrel.Vistrel.cameraextension version=1.0 state=installed\n")));
    EXPECT_TRUE(installed.contains(QStringLiteral("\noptions v4l2loopback devices=1 card_label=Vistrel exclusive_caps=1\n")));
    EXPECT_TRUE(machine.read(machine.modulesLoadFile()).contains(QStringLiteral("\nv4l2loopback\n")));
    EXPECT_EQ(machine.deviceNames(), QStringList{QStringLiteral("Vistrel")});

    const QDateTime written = QFileInfo(machine.modprobeFile()).lastModified();
    const HelperRun second = helper(QStringLiteral("activate"));
    EXPECT_EQ(second.lines, QStringList{QStringLiteral("outcome completed")});
    EXPECT_EQ(machine.toolLog().filter(QStringLiteral("modprobe v4l2loopback")).size(), 1) << "loaded once";
    EXPECT_EQ(QFileInfo(machine.modprobeFile()).lastModified(), written) << "an identical file is not rewritten";
    EXPECT_EQ(machine.deviceNames(), QStringList{QStringLiteral("Vistrel")});

    const HelperRun status = helper(QStringLiteral("status"));
    EXPECT_EQ(status.lines, QStringList{QStringLiteral(
                                "status identifier=app.vistrel.Vistrel.cameraextension installed=1.0 state=installed "
                                "module=loaded moduleVersion=0.12.7 camera=/dev/video10")});
}

TEST_F(HelperProcessTest, AModuleBuiltWithoutAVersionIsStillInstalled)
{
    machine.installModule(QString());
    const HelperRun run = helper(QStringLiteral("activate"));
    EXPECT_EQ(run.lines, QStringList{QStringLiteral("outcome completed")}) << run.errors.toStdString();
    EXPECT_EQ(machine.deviceNames(), QStringList{QStringLiteral("Vistrel")});
}

TEST_F(HelperProcessTest, AMissingModuleOrARejectedKeyAreReportedAsTheirOutcomes)
{
    const HelperRun missing = helper(QStringLiteral("activate"));
    ASSERT_EQ(missing.lines.size(), 1);
    EXPECT_TRUE(missing.lines[0].startsWith(QStringLiteral("outcome failed 4 "))) << missing.lines[0].toStdString();
    EXPECT_FALSE(QFileInfo::exists(machine.modprobeFile())) << "nothing is installed for a module that is not there";

    machine.installModule(QStringLiteral("0.12.7"));
    machine.rejectModuleKey();
    EXPECT_EQ(helper(QStringLiteral("activate")).lines, QStringList{QStringLiteral("outcome needs-approval")});
    EXPECT_TRUE(QFileInfo::exists(machine.modprobeFile())) << "kept, so the module loads once its key is enrolled";
    EXPECT_TRUE(machine.deviceNames().isEmpty());
}

TEST_F(HelperProcessTest, ALoadedModuleWithoutTheCameraFollowsItsVersion)
{
    struct Case
    {
        const char *version;
        int useCount;
        const char *outcome;
        const char *tool; // the run that must appear in the tool log
        bool cameraNow;
    };
    const Case cases[] = {
        {"0.12.7", 0, "outcome completed", "modprobe -r v4l2loopback", true},
        {"0.12.7", 1, "outcome reboot", nullptr, false},
        {"0.13.2", 1, "outcome completed", "v4l2loopback-ctl add -n Vistrel -x 1", true},
        {"0.15.0", 0, "outcome completed", "v4l2loopback-ctl add -n Vistrel -x 1", true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.version) + " in use " + std::to_string(c.useCount));
        FakeLoopbackMachine other;
        other.loadModule(QString::fromLatin1(c.version), QStringLiteral("OBS Virtual Camera"), c.useCount);
        const HelperRun run = runProgram(kTestableHelper, {QStringLiteral("--test-root=") + other.root(), QStringLiteral("activate"),
                                                     FakeLoopbackMachine::kIdentifier});
        EXPECT_EQ(run.lines, QStringList{QString::fromLatin1(c.outcome)}) << run.errors.toStdString();
        EXPECT_EQ(other.deviceNames().contains(QStringLiteral("Vistrel")), c.cameraNow);
        if (c.tool)
            EXPECT_TRUE(other.toolLog().contains(QString::fromLatin1(c.tool))) << other.toolLog().join(QLatin1Char('|')).toStdString();
        else
            EXPECT_TRUE(other.toolLog().filter(QStringLiteral("-r")).isEmpty()) << "no reload while a device is open";
        EXPECT_TRUE(QFileInfo::exists(other.modprobeFile()));
    }
}

TEST_F(HelperProcessTest, DeactivatingRemovesTheCameraOrLeavesAnInertRecordUntilReboot)
{
    machine.installModule(QStringLiteral("0.12.7"));
    ASSERT_EQ(helper(QStringLiteral("activate")).lines, QStringList{QStringLiteral("outcome completed")});
    EXPECT_EQ(helper(QStringLiteral("deactivate")).lines, QStringList{QStringLiteral("outcome completed")});
    EXPECT_FALSE(QFileInfo::exists(machine.modprobeFile()));
    EXPECT_FALSE(QFileInfo::exists(machine.modulesLoadFile()));
    EXPECT_TRUE(machine.deviceNames().isEmpty());
    EXPECT_EQ(helper(QStringLiteral("deactivate")).lines, QStringList{QStringLiteral("outcome completed")}) << "twice is fine";

    // A camera that is open cannot go before the next boot.
    ASSERT_EQ(helper(QStringLiteral("activate")).lines, QStringList{QStringLiteral("outcome completed")});
    machine.setUseCount(1);
    EXPECT_EQ(helper(QStringLiteral("deactivate")).lines, QStringList{QStringLiteral("outcome reboot")});
    const QString record = machine.read(machine.modprobeFile());
    EXPECT_TRUE(record.startsWith(QStringLiteral("# vistrel-extension identifier=app.vistrel.Vistrel.cameraextension "
                                                 "version=1.0 state=removed\n")));
    EXPECT_FALSE(record.contains(QStringLiteral("options"))) << "the record sets nothing";
    EXPECT_FALSE(QFileInfo::exists(machine.modulesLoadFile())) << "not loaded at the next boot";
}

TEST_F(HelperProcessTest, AnInterruptedWriteLeavesTheOldFileWholeAndTheNextRunCleansUp)
{
    machine.installModule(QStringLiteral("0.12.7"));
    const QString old = QStringLiteral("# vistrel-extension identifier=app.vistrel.Vistrel.cameraextension version=0.9 "
                                       "state=installed\noptions v4l2loopback devices=1 card_label=Vistrel\n");
    machine.write(QStringLiteral("etc/modprobe.d/app.vistrel.Vistrel.cameraextension.conf"), old);

    const HelperRun crashed = helper(QStringLiteral("activate"), {QStringLiteral("--test-crash-mid-write")});
    EXPECT_TRUE(crashed.crashed);
    EXPECT_TRUE(crashed.lines.isEmpty());
    EXPECT_EQ(machine.read(machine.modprobeFile()), old) << "never half-written";
    EXPECT_EQ(leftovers(QStringLiteral("etc/modprobe.d")).size(), 2) << "the old file and the abandoned temporary";
    for (const QString &name : leftovers(QStringLiteral("etc/modprobe.d")))
        if (name.startsWith(QLatin1Char('.')))
            EXPECT_FALSE(name.endsWith(QStringLiteral(".conf"))) << "modprobe ignores it";

    EXPECT_EQ(helper(QStringLiteral("activate")).lines, QStringList{QStringLiteral("outcome completed")});
    EXPECT_EQ(leftovers(QStringLiteral("etc/modprobe.d")),
              QStringList{FakeLoopbackMachine::kIdentifier + QStringLiteral(".conf")});
    EXPECT_TRUE(machine.read(machine.modprobeFile()).contains(QStringLiteral("version=1.0")));
}

TEST_F(HelperProcessTest, HostileArgumentsAreRefusedWithOneLineAndNoChange)
{
    machine.installModule(QStringLiteral("0.12.7"));
    const QString root = QStringLiteral("--test-root=") + machine.root();
    const QList<QStringList> hostile = {
        {root},
        {root, QStringLiteral("activate")},
        {root, QStringLiteral("activate"), FakeLoopbackMachine::kIdentifier, QStringLiteral("extra")},
        {root, QStringLiteral("install"), FakeLoopbackMachine::kIdentifier},
        {root, QStringLiteral("ACTIVATE"), FakeLoopbackMachine::kIdentifier},
        {root, QStringLiteral("activate"), QStringLiteral("../../../etc/passwd")},
        {root, QStringLiteral("activate"), QStringLiteral("app.vistrel/evil")},
        {root, QStringLiteral("activate"), QStringLiteral("app.vistrel.Vistrel.cameraextension\nx")},
        {root, QStringLiteral("activate"), QStringLiteral("app.vistrel\x01.cameraextension")},
        {root, QStringLiteral("activate"), QStringLiteral("app.vistrel.Vistrel.cameraextension; rm -rf /")},
        {root, QStringLiteral("activate"), QString()},
        {root, QStringLiteral("deactivate"), QStringLiteral("-x")},
        {root, QStringLiteral("activate"), QStringLiteral("app.vistrel.Other.cameraextension")}, // not in the bundle
        {QStringLiteral("--test-root=relative"), QStringLiteral("activate"), FakeLoopbackMachine::kIdentifier},
    };
    const auto before = snapshotEtc(machine);
    for (const QStringList &arguments : hostile) {
        SCOPED_TRACE(arguments.join(QLatin1Char(' ')).toStdString());
        const HelperRun run = runProgram(kTestableHelper, arguments);
        ASSERT_EQ(run.lines.size(), 1);
        EXPECT_TRUE(run.lines[0].startsWith(QStringLiteral("outcome failed 1 "))) << run.lines[0].toStdString();
        EXPECT_NE(run.exitCode, 126);
        EXPECT_NE(run.exitCode, 127);
        EXPECT_FALSE(run.errors.isEmpty()) << "the reason is explained";
    }
    EXPECT_EQ(snapshotEtc(machine), before);
    EXPECT_TRUE(machine.toolLog().isEmpty()) << "no tool was run";

    // The installed helper has no test switches at all: its folders cannot be moved.
    const HelperRun installed = runProgram(kInstalledHelper, {root, QStringLiteral("status"), FakeLoopbackMachine::kIdentifier});
    ASSERT_EQ(installed.lines.size(), 1);
    EXPECT_TRUE(installed.lines[0].startsWith(QStringLiteral("outcome failed 1 ")));
    EXPECT_EQ(installed.exitCode, 2);
}

TEST_F(HelperProcessTest, UnexpectedFilesOnDiskAreLeftAloneAndRefused)
{
    machine.installModule(QStringLiteral("0.12.7"));
    const QString target = machine.path(QStringLiteral("victim"));
    machine.write(QStringLiteral("victim"), QStringLiteral("precious\n"));

    // A link in place of the record.
    QFile::link(target, machine.modprobeFile());
    HelperRun run = helper(QStringLiteral("activate"));
    ASSERT_EQ(run.lines.size(), 1);
    EXPECT_TRUE(run.lines[0].startsWith(QStringLiteral("outcome failed 1 ")));
    EXPECT_EQ(machine.read(QStringLiteral("victim")), QStringLiteral("precious\n"));
    EXPECT_TRUE(QFileInfo(machine.modprobeFile()).isSymLink());
    EXPECT_TRUE(helper(QStringLiteral("deactivate")).lines.value(0).startsWith(QStringLiteral("outcome failed 1 ")));
    EXPECT_TRUE(QFileInfo(machine.modprobeFile()).isSymLink());
    QFile::remove(machine.modprobeFile());

    // A file of the same name that Vistrel did not write.
    machine.write(QStringLiteral("etc/modprobe.d/app.vistrel.Vistrel.cameraextension.conf"), QStringLiteral("options snd x=1\n"));
    run = helper(QStringLiteral("deactivate"));
    EXPECT_TRUE(run.lines.value(0).startsWith(QStringLiteral("outcome failed 1 "))) << run.lines.value(0).toStdString();
    EXPECT_EQ(machine.read(machine.modprobeFile()), QStringLiteral("options snd x=1\n"));
    QFile::remove(machine.modprobeFile());

    // A bundled configuration that would run a command as root, or that others may edit.
    const QString bundled = QStringLiteral("share/vistrel/SystemExtensions/app.vistrel.Vistrel.cameraextension/modprobe.conf");
    const QString original = machine.read(bundled);
    machine.write(bundled, original + QStringLiteral("install v4l2loopback /bin/sh -c 'id > /tmp/owned'\n"));
    EXPECT_TRUE(helper(QStringLiteral("activate")).lines.value(0).startsWith(QStringLiteral("outcome failed 1 refusing")));
    machine.write(bundled, original);
    QFile::setPermissions(machine.path(bundled), QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadOther
                                                     | QFileDevice::WriteOther);
    EXPECT_TRUE(helper(QStringLiteral("activate")).lines.value(0).contains(QStringLiteral("not installed safely")));
    EXPECT_FALSE(QFileInfo::exists(machine.modprobeFile()));
    EXPECT_TRUE(machine.toolLog().filter(QStringLiteral("modprobe")).isEmpty());
}
