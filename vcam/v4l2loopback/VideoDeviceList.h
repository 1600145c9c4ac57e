#pragma once
#include <QString>
#include <vector>

namespace vistrel::vcam {

// One video4linux device as sysfs describes it, whatever it currently offers
// (a loopback device with exclusive_caps=1 is not a capture device until written).
struct VideoDeviceEntry
{
    QString node;          // device node path, e.g. "/dev/video10"; also its unique identifier
    QString name;          // the device's name ("card label" for v4l2loopback)
    bool loopback = false; // a v4l2loopback device (isLoopbackClassEntry)

    bool isLoopback() const { return loopback; }
};

// The machine's video4linux devices in node-number order (video2 before video10),
// read from <sysRoot>/class/video4linux; nodes are named under devRoot.
// A missing or unreadable sysfs gives an empty list.
std::vector<VideoDeviceEntry> listVideoDevices(const QString &sysRoot = QStringLiteral("/sys"),
                                               const QString &devRoot = QStringLiteral("/dev"));

} // namespace vistrel::vcam
