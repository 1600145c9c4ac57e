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

QString record(const QString &identifier, const QString &state)
{
    return QStringLiteral("# vistrel-extension identifier=%1 version=1.0 state=%2\n").arg(identifier, state);
}

sysext::CameraExtensionHelper probesOf(const FakeLoopbackMachine &machine,
                                       const QString &bundleIdentifier = kBundleIdentifier)
{
    Bundle bundle = Bundle::forExecutable("/opt/vistrel/bin/vistrel");
    bundle.bundleIdentifier = bundleIdentifier;
    return sysext::CameraExtensionHelper(bundle, {machine.path("sys"), machine.path("etc"), "/dev"});
}

} // namespace

// Another extension, a file without a record, and a record of ours that waits for a reboot or
// was removed all count for nothing.
TEST(ExtensionProbesTest, InstalledOnlyWhenARecordOfThisExtensionIsEnabledAndEachRecordIsPrinted)
{
    FakeLoopbackMachine machine;
    machine.write("etc/modprobe.d/a.conf", record("app.vistrel.Other.cameraextension", "installed"));
    machine.write("etc/modprobe.d/b.conf", "options v4l2loopback card_label=Vistrel\n");
    machine.write("etc/modprobe.d/c.conf", record(kId, "installed"));
    EXPECT_FALSE(probesOf(machine).isExtensionInstalledProbe()) << "the module waits for a reboot";
    machine.loadModule("0.12.7", "Vistrel");
    EXPECT_TRUE(probesOf(machine).isExtensionInstalledProbe());
    EXPECT_FALSE(probesOf(machine, QString()).isExtensionInstalledProbe()) << "no bundle identifier, no extension";

    machine.write("etc/modprobe.d/c.conf", record(kId, "removed"));
    test::ConsoleCapture console;
    EXPECT_FALSE(probesOf(machine).isExtensionInstalledProbe());
    const QStringList lines = console.lines();
    ASSERT_EQ(lines.size(), 4) << lines.join('\n').toStdString();
    EXPECT_TRUE(lines[0].contains("identifier = \"app.vistrel.Other.cameraextension\""));
    EXPECT_EQ(lines[1], "Extension state: activated_enabled");
    EXPECT_EQ(lines[3], "Extension state: terminated_waiting_to_uninstall_on_reboot");
}

TEST(ExtensionProbesTest, ActivatedWhenAVideoDeviceNameContainsVistrel)
{
    for (const auto &[name, activated] : {std::pair{"My Vistrel Cam (loopback)", true}, {"vistrel", false}}) {
        SCOPED_TRACE(name);
        FakeLoopbackMachine machine;
        machine.addDevice(0, name, false);
        EXPECT_EQ(probesOf(machine).isExtensionActivatedProbe(), activated);
    }
}

TEST(ExtensionProbesTest, SettingsOpenTheHelpPageOfTheInstallation)
{
    test::RecordingUrlOpener opener;
    sysext::CameraExtensionHelper::openExtensionSettings(opener,
                                                         Bundle::forExecutable(VISTREL_BINARY_DIR "/bin/vistrel"));
    const QString page = VISTREL_BINARY_DIR "/share/doc/vistrel/camera-extension.html";
    EXPECT_EQ(opener.opened, QList<QUrl>{QUrl::fromLocalFile(page)});
    EXPECT_TRUE(QFileInfo(page).isFile()) << "staged with the build";
    // The approval alert sends Secure Boot users here: each distribution's module key has its command.
    const QString text = QString::fromUtf8(test::readFile(page));
    for (const char *key :
         {"/var/lib/dkms/mok.pub", "/var/lib/shim-signed/mok/MOK.der", "/etc/pki/akmods/certs/public_key.der"})
        EXPECT_TRUE(text.contains(QString("<code>sudo mokutil --import ") + key + "</code>")) << key;
}

// The machine's share/vistrel holds the bundled extension, app.vistrel.Vistrel.cameraextension.
TEST(ExtensionBundleTest, TheFirstVisibleFolderByNameIsTheExtension)
{
    FakeLoopbackMachine machine;
    machine.write("share/vistrel/SystemExtensions/b.second/manifest", "Identifier=app.second\nShortVersion=2.0\n");
    machine.write("share/vistrel/SystemExtensions/.hidden/manifest", "Identifier=app.hidden\nShortVersion=3.0\n");
    Bundle bundle;
    bundle.shareDir = machine.path("share/vistrel");
    const sysext::ExtensionBundle found = sysext::extensionBundle(bundle);
    EXPECT_EQ(found.identifier, kId);
}

TEST(ExtensionBundleDeathTest, AMissingEmptyOrBrokenFolderStopsTheProgram)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    FakeLoopbackMachine machine;
    Bundle bundle;
    bundle.shareDir = machine.path("share/none");
    EXPECT_DEATH(sysext::extensionBundle(bundle),
                 "Failed to get the contents of file://.*/SystemExtensions: No such file or directory");
    QDir().mkpath(bundle.systemExtensionsDir());
    EXPECT_DEATH(sysext::extensionBundle(bundle), "Failed to find any system extensions");
    machine.write("share/none/SystemExtensions/a-file", {});
    EXPECT_DEATH(sysext::extensionBundle(bundle), "Failed to find any system extensions");
}
