#include "vcam/v4l2loopback/VideoDeviceList.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <algorithm>

namespace vistrel::vcam {

namespace {

QString readFirstLine(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readLine()).trimmed();
}

// The driver is the last part of the device's "driver" link. Where v4l2loopback
// registers its devices without a parent (they sit under devices/virtual and have no
// driver link), its own sysfs attribute "max_openers" tells them apart.
QString driverOf(const QString &classEntry)
{
    const QFileInfo driverLink(classEntry + QStringLiteral("/device/driver"));
    if (driverLink.isSymLink())
        return QFileInfo(driverLink.symLinkTarget()).fileName();
    const QFileInfo deviceLink(classEntry + QStringLiteral("/device"));
    if (deviceLink.isSymLink() && QFileInfo(deviceLink.symLinkTarget()).fileName().startsWith(QLatin1String("v4l2loopback")))
        return QStringLiteral("v4l2loopback");
    if (QFileInfo::exists(classEntry + QStringLiteral("/max_openers")))
        return QStringLiteral("v4l2loopback");
    return {};
}

} // namespace

std::vector<VideoDeviceEntry> listVideoDevices(const QString &sysRoot, const QString &devRoot)
{
    const QDir classDir(sysRoot + QStringLiteral("/class/video4linux"));
    QStringList entries = classDir.entryList({QStringLiteral("video*")}, QDir::Dirs | QDir::System | QDir::NoDotAndDotDot);
    // By node number: video2 before video10.
    const auto number = [](const QString &entry) { return entry.mid(5).toInt(); };
    std::sort(entries.begin(), entries.end(),
              [&](const QString &a, const QString &b) { return number(a) < number(b); });

    std::vector<VideoDeviceEntry> devices;
    devices.reserve(entries.size());
    for (const QString &entry : entries) {
        const QString path = classDir.filePath(entry);
        devices.push_back({devRoot + QLatin1Char('/') + entry, readFirstLine(path + QStringLiteral("/name")), driverOf(path)});
    }
    return devices;
}

} // namespace vistrel::vcam
