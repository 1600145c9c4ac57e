#pragma once
#include "FakeCameraAuthorization.h"
#include "FakeExtensionProbes.h"
#include "ManualClock.h"
#include "RecordingApplication.h"
#include "RecordingLauncher.h"
#include "RecordingUrlOpener.h"
#include "ScriptedAlertPresenter.h"
#include "core/NotificationCenter.h"
#include "core/Services.h"
#include "core/Timers.h"
#include "core/UserDefaults.h"

#include <QDir>
#include <memory>

namespace vistrel::test {

// A Services bundle made of the recording fakes above, settings in a file under the
// test's temporary HOME, and the share folder of the source tree (so the real
// interface file is used). Subsystem fakes that exist only in some tests (device
// discovery, virtual camera, extension manager) are left for the test to set.
struct TestServices
{
    ManualClock clock;
    QtTimers qtTimers;
    ScriptedAlertPresenter alerts;
    RecordingLauncher launcher;
    RecordingUrlOpener urlOpener;
    RecordingApplication application;
    FakeCameraAuthorization cameraAuthorization;
    FakeExtensionProbes extensionProbes;
    NotificationCenter notifications;
    std::unique_ptr<UserDefaults> defaults;
    Services services;

    explicit TestServices(const QString &shareDir = QStringLiteral(VISTREL_SOURCE_DIR "/resources"))
        : defaults(std::make_unique<UserDefaults>(QDir::homePath() + QStringLiteral("/.config/Vistrel/Vistrel.conf")))
    {
        services.bundle.executablePath = QStringLiteral("/opt/vistrel/bin/vistrel");
        services.bundle.shareDir = shareDir;
        services.bundle.bundleIdentifier = kBundleIdentifier;
        services.bundle.infoDictionary = {{QStringLiteral("CFBundleIdentifier"), kBundleIdentifier},
                                          {QStringLiteral("CFBundleVersion"), QStringLiteral("120")},
                                          {QStringLiteral("CFBundleShortVersionString"), QStringLiteral("1.2.0")}};
        services.defaults = defaults.get();
        services.notifications = &notifications;
        services.clock = &clock;
        // Real timers unless a test drives time itself (services.timers = &clock).
        services.timers = &qtTimers;
        services.alerts = &alerts;
        services.launcher = &launcher;
        services.urlOpener = &urlOpener;
        services.application = &application;
        services.cameraAuthorization = &cameraAuthorization;
        services.extensionProbes = &extensionProbes;
    }
};

} // namespace vistrel::test
