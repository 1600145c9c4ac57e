#include "sysext/CameraExtensionHelper.h"

#include "core/Platform.h"
#include "core/SystemLog.h"
#include "sysext/ExtensionFiles.h"
#include "vcam/v4l2loopback/VideoDeviceList.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace vistrel::sysext {

QString ExtensionRecord::description() const
{
    return QStringLiteral("{ identifier = \"%1\"; state = \"%2\"; version = \"%3\"; path = \"%4\"; }")
        .arg(identifier, state, version, path);
}

CameraExtensionHelper::CameraExtensionHelper(const Bundle &bundle, Roots roots)
    : m_bundle(bundle), m_roots(std::move(roots))
{}

std::optional<QString> CameraExtensionHelper::extensionIdentifier(const Bundle &bundle)
{
    if (bundle.bundleIdentifier.isEmpty())
        return std::nullopt;
    return bundle.bundleIdentifier + QStringLiteral(".cameraextension");
}

std::vector<ExtensionRecord> CameraExtensionHelper::extensionRecords() const
{
    const bool moduleLive =
        QFileInfo(m_roots.sysRoot + QStringLiteral("/module/") + QString::fromLatin1(files::kModuleName.data()))
            .isDir();
    const QDir modprobeDir(m_roots.etcRoot + QStringLiteral("/modprobe.d"));
    std::vector<ExtensionRecord> records;
    for (const QString &name : modprobeDir.entryList({QStringLiteral("*.conf")}, QDir::Files, QDir::Name)) {
        QFile file(modprobeDir.filePath(name));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        const QByteArray firstLine = file.readLine(1024);
        const auto marker = files::parseMarker(std::string_view(firstLine.constData(), firstLine.size()));
        if (!marker)
            continue;
        ExtensionRecord record{
            QString::fromStdString(marker->identifier), {}, QString::fromStdString(marker->version), file.fileName()};
        if (marker->state == files::kStateInstalled)
            record.state = moduleLive ? kStateActivatedEnabled : kStateActivatedWaitingForReboot;
        else if (moduleLive)
            record.state = kStateTerminatedWaitingToUninstall;
        else
            continue; // removed, and the module is gone too: nothing is left of it
        records.push_back(record);
    }
    return records;
}

bool CameraExtensionHelper::matchesEnabledExtension(const ExtensionRecord &record, const QString &identifier)
{
    if (record.identifier.isEmpty() || record.state.isEmpty())
        return false;
    consoleLine(record.description());
    consoleLine(QStringLiteral("Extension state: ") + record.state);
    if (record.identifier != identifier)
        return false;
    if (record.state == kStateTerminatedWaitingToUninstall)
        return false;
    return record.state == kStateActivatedEnabled;
}

bool CameraExtensionHelper::isExtensionInstalledProbe()
{
    const auto identifier = extensionIdentifier(m_bundle);
    if (!identifier)
        return false;
    for (const ExtensionRecord &record : extensionRecords()) {
        if (matchesEnabledExtension(record, *identifier))
            return true;
    }
    return false;
}

bool CameraExtensionHelper::isExtensionActivatedProbe()
{
    const QString name = QString::fromLatin1(files::kCameraName.data(), files::kCameraName.size());
    for (const vcam::VideoDeviceEntry &device : vcam::listVideoDevices(m_roots.sysRoot, m_roots.devRoot)) {
        if (device.name.contains(name, Qt::CaseSensitive))
            return true;
    }
    return false;
}

QUrl CameraExtensionHelper::extensionSettingsUrl(const Bundle &bundle)
{
    return QUrl::fromLocalFile(bundle.prefixDir() + QStringLiteral("/share/doc/vistrel/camera-extension.html"));
}

void CameraExtensionHelper::openExtensionSettings(UrlOpener &opener, const Bundle &bundle)
{
    const QUrl url = extensionSettingsUrl(bundle);
    if (!url.isValid())
        return;
    opener.openUrl(url);
}

} // namespace vistrel::sysext
