// The extension records and the camera probe on fake machines, the help page link,
// and the bundle lookup with its fatal stops.
#include "sysext/CameraExtensionHelper.h"
#include "sysext/ExtensionBundle.h"

#include "ConsoleCapture.h"
#include "FakeLoopbackMachine.h"
#include "RecordingUrlOpener.h"

#include <QFileInfo>
#include <gtest/gtest.h>

using namespace vistrel;
using test::FakeLoopbackMachine;

namespace {

const QString kId = FakeLoopbackMachine::kIdentifier;

QString record(const QString &identifier, const QString &state, const QString &version = QStringLiteral("1.0"))
{
    return QStringLiteral("# vistrel-extension identifier=%1 version=%2 state=%3\n").arg(identifier, version, state);
}

sysext::CameraExtensionHelper probesOf(const FakeLoopbackMachine &machine, const QString &bundleIdentifier = kBundleIdentifier)
{
    Bundle bundle = Bundle::forExecutable(QStringLiteral("/opt/vistrel/bin/vistrel"));
    bundle.bundleIdentifier = bundleIdentifier;
    return sysext::CameraExtensionHelper(bundle, {machine.path(QStringLiteral("sys")), machine.path(QStringLiteral("etc")),
                                                  QStringLiteral("/dev")});
}

} // namespace

TEST(ExtensionProbesTest, InstalledOnlyWhenARecordOfThisExtensionIsEnabled)
{
    struct Case
    {
        const char *name;
        QStringList files; // file name, content, file name, content...
        bool moduleLoaded;
        bool installed;
    };
    const Case cases[] = {
        {"installed and live", {kId + ".conf", record(kId, "installed")}, true, true},
        {"removed, module still loaded", {kId + ".conf", record(kId, "removed")}, true, false},
        {"removed and an enabled one of the same identifier",
         {kId + ".conf", record(kId, "removed"), "zz-older.conf", record(kId, "installed", "0.9")}, true, true},
        {"installed, module waiting for a reboot", {kId + ".conf", record(kId, "installed")}, false, false},
        {"another extension", {"other.conf", record("app.vistrel.Other.cameraextension", "installed")}, true, false},
        {"a file of someone else", {kId + ".conf", "options v4l2loopback card_label=Vistrel\n"}, true, false},
        {"nothing at all", {}, true, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        FakeLoopbackMachine machine;
        for (int i = 0; i + 1 < c.files.size(); i += 2)
            machine.write(QStringLiteral("etc/modprobe.d/") + c.files[i], c.files[i + 1]);
        if (c.moduleLoaded)
            machine.loadModule(QStringLiteral("0.12.7"), QStringLiteral("Vistrel"));
        EXPECT_EQ(probesOf(machine).isExtensionInstalledProbe(), c.installed);
    }

    FakeLoopbackMachine machine;
    machine.write(QStringLiteral("etc/modprobe.d/") + kId + QStringLiteral(".conf"), record(kId, QStringLiteral("installed")));
    machine.loadModule(QStringLiteral("0.12.7"), QStringLiteral("Vistrel"));
    EXPECT_FALSE(probesOf(machine, QString()).isExtensionInstalledProbe()) << "no bundle identifier, no extension";
}

TEST(ExtensionProbesTest, EveryRecordIsPrintedWithItsStateBeforeItIsCompared)
{
    FakeLoopbackMachine machine;
    machine.write(QStringLiteral("etc/modprobe.d/a.conf"), record(QStringLiteral("app.vistrel.Other.cameraextension"), QStringLiteral("installed")));
    machine.write(QStringLiteral("etc/modprobe.d/b.conf"), QStringLiteral("options snd index=1\n"));
    machine.write(QStringLiteral("etc/modprobe.d/c.conf"), record(kId, QStringLiteral("removed")));
    machine.loadModule(QStringLiteral("0.13.2"), QStringLiteral("Vistrel"));

    test::ConsoleCapture console;
    EXPECT_FALSE(probesOf(machine).isExtensionInstalledProbe());
    const QStringList lines = console.lines();
    ASSERT_EQ(lines.size(), 4) << lines.join(QLatin1Char('\n')).toStdString();
    EXPECT_TRUE(lines[0].contains(QStringLiteral("identifier = \"app.vistrel.Other.cameraextension\"")));
    EXPECT_EQ(lines[1], QStringLiteral("Extension state: activated_enabled"));
    EXPECT_TRUE(lines[2].contains(QStringLiteral("identifier = \"app.vistrel.Vistrel.cameraextension\"")));
    EXPECT_EQ(lines[3], QStringLiteral("Extension state: terminated_waiting_to_uninstall_on_reboot"));
}

TEST(ExtensionProbesTest, ActivatedWhenAVideoDeviceNameContainsVistrel)
{
    const std::pair<const char *, bool> names[] = {
        {"Vistrel", true}, {"My Vistrel Cam (loopback)", true}, {"vistrel", false}, {"VISTREL", false}, {"Integrated Webcam", false}};
    for (const auto &[name, activated] : names) {
        SCOPED_TRACE(name);
        FakeLoopbackMachine machine;
        machine.addDevice(0, QString::fromUtf8(name), false);
        EXPECT_EQ(probesOf(machine).isExtensionActivatedProbe(), activated);
    }
    FakeLoopbackMachine empty;
    EXPECT_FALSE(probesOf(empty).isExtensionActivatedProbe());
}

TEST(ExtensionProbesTest, SettingsOpenTheHelpPageOfTheInstallation)
{
    test::RecordingUrlOpener opener;
    const Bundle bundle = Bundle::forExecutable(QStringLiteral(VISTREL_BINARY_DIR "/bin/vistrel"));
    sysext::CameraExtensionHelper::openExtensionSettings(opener, bundle);
    ASSERT_EQ(opener.opened.size(), 1);
    EXPECT_EQ(opener.opened[0], QUrl::fromLocalFile(QStringLiteral(VISTREL_BINARY_DIR "/share/doc/vistrel/camera-extension.html")));
    EXPECT_TRUE(QFileInfo(opener.opened[0].toLocalFile()).isFile()) << "staged with the build";
}

TEST(ExtensionBundleTest, TheFirstFolderByNameIsTheExtension)
{
    QTemporaryDir share;
    Bundle bundle;
    bundle.shareDir = share.path();
    const auto write = [&](const QString &relative, const QByteArray &content) {
        QDir().mkpath(QFileInfo(share.path() + relative).absolutePath());
        QFile file(share.path() + relative);
        file.open(QIODevice::WriteOnly);
        file.write(content);
    };
    write(QStringLiteral("/SystemExtensions/b.second/manifest"), "Identifier=app.second\nShortVersion=2.0\n");
    write(QStringLiteral("/SystemExtensions/a.first/manifest"), "Identifier=app.vistrel.Vistrel.cameraextension\nShortVersion=1.0\n");
    write(QStringLiteral("/SystemExtensions/.hidden/manifest"), "Identifier=app.hidden\nShortVersion=3.0\n");

    const sysext::ExtensionBundle found = sysext::extensionBundle(bundle);
    EXPECT_EQ(found.identifier, kId);
    EXPECT_EQ(found.shortVersion, QStringLiteral("1.0"));
    EXPECT_EQ(sysext::extensionBundle(Bundle::forExecutable(QStringLiteral(VISTREL_BINARY_DIR "/bin/vistrel"))).identifier, kId)
        << "the staged bundle";
}

TEST(ExtensionBundleDeathTest, AMissingEmptyOrBrokenFolderStopsTheProgram)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    QTemporaryDir share;
    Bundle bundle;
    bundle.shareDir = share.path();
    EXPECT_DEATH(sysext::extensionBundle(bundle),
                 "Failed to get the contents of file://.*/SystemExtensions: No such file or directory");
    QDir(share.path()).mkdir(QStringLiteral("SystemExtensions"));
    EXPECT_DEATH(sysext::extensionBundle(bundle), "Failed to find any system extensions");
    QFile file(share.path() + QStringLiteral("/SystemExtensions/a-file"));
    file.open(QIODevice::WriteOnly);
    file.close();
    EXPECT_DEATH(sysext::extensionBundle(bundle), "Failed to find any system extensions");
}
