#include "vcam/v4l2loopback/VideoDeviceList.h"

#include "vcam/v4l2loopback/LoopbackNode.h"

#include <QDir>
#include <QFile>
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

} // namespace

std::vector<VideoDeviceEntry> listVideoDevices(const QString &sysRoot, const QString &devRoot)
{
    const QDir classDir(sysRoot + QStringLiteral("/class/video4linux"));
    QStringList entries =
        classDir.entryList({QStringLiteral("video*")}, QDir::Dirs | QDir::System | QDir::NoDotAndDotDot);
    // By node number: video2 before video10.
    const auto number = [](const QString &entry) { return entry.mid(5).toInt(); };
    std::sort(entries.begin(), entries.end(),
              [&](const QString &a, const QString &b) { return number(a) < number(b); });

    std::vector<VideoDeviceEntry> devices;
    devices.reserve(entries.size());
    for (const QString &entry : entries) {
        const QString path = classDir.filePath(entry);
        devices.push_back({devRoot + QLatin1Char('/') + entry, readFirstLine(path + QStringLiteral("/name")),
                           isLoopbackClassEntry(path.toStdString())});
    }
    return devices;
}

} // namespace vistrel::vcam
