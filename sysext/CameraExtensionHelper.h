#pragma once
#include "core/Bundle.h"
#include "sysext/ExtensionProbes.h"

#include <QString>
#include <QUrl>
#include <optional>
#include <vector>

namespace vistrel {
class UrlOpener;
}

namespace vistrel::sysext {

inline const QString kStateActivatedEnabled = QStringLiteral("activated_enabled");
inline const QString kStateTerminatedWaitingToUninstall = QStringLiteral("terminated_waiting_to_uninstall_on_reboot");
inline const QString kStateActivatedWaitingForReboot = QStringLiteral("activated_waiting_for_reboot");

// One record of the system's extension database: an installed Vistrel module
// configuration in modprobe.d, or the inert record that its removal leaves while
// the module is still loaded.
struct ExtensionRecord
{
    QString identifier;
    QString state;
    QString version;
    QString path;

    // The record as printed on the console.
    QString description() const;
};

// Where the probes look: sysfs for the module and the video devices, /etc for the
// installed configuration.
struct ProbeRoots
{
    QString sysRoot = QStringLiteral("/sys");
    QString etcRoot = QStringLiteral("/etc");
    QString devRoot = QStringLiteral("/dev");
};

// Answers whether the camera extension is recorded as installed and enabled, and
// whether its camera is visible; opens the camera help page. Reads afresh at every
// call. The roots let tests build a machine in a temporary folder.
class CameraExtensionHelper final : public ExtensionProbes
{
public:
    using Roots = ProbeRoots;

    explicit CameraExtensionHelper(const Bundle &bundle, Roots roots = {});

    static std::optional<QString> extensionIdentifier(const Bundle &bundle);
    // The database: one record per Vistrel configuration in modprobe.d, by file name.
    std::vector<ExtensionRecord> extensionRecords() const;

    bool isExtensionInstalledProbe() override;
    bool isExtensionActivatedProbe() override;

    // Prints the record and its state, then tells whether it is this extension, enabled.
    static bool matchesEnabledExtension(const ExtensionRecord &record, const QString &identifier);

    // share/doc/vistrel/camera-extension.html of the installation (or build tree).
    static QUrl extensionSettingsUrl(const Bundle &bundle);
    static void openExtensionSettings(UrlOpener &opener, const Bundle &bundle);

private:
    Bundle m_bundle;
    Roots m_roots;
};

} // namespace vistrel::sysext
