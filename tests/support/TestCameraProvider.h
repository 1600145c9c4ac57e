#pragma once
#include <QString>

namespace vistrel::test {

// A GStreamer device provider, registered in the test process, that offers cameras
// built on videotestsrc to every GstDeviceMonitor watching "Video/Source":
//   "Vistrel"            (the program's own name: must never be offered)
//   "Studio Camera"      solid red
//   "Studio Camera"      solid blue (same name, second in the list)
//   "Vistrel Camera HD"  solid green (name only contains "Vistrel")
//   "Unplugged Camera"   a V4L2 source on a device node that does not exist
//   "Moving Camera"      a moving ball: every picture differs from the one before
// Pictures are 160x120 at 30 frames per second.
namespace TestCameraProvider {

void registerOnce();

inline const QString kVirtualCameraName = QStringLiteral("Vistrel");
inline const QString kStudioCameraName = QStringLiteral("Studio Camera");
inline const QString kSuffixedName = QStringLiteral("Vistrel Camera HD");
inline const QString kUnpluggedName = QStringLiteral("Unplugged Camera");

} // namespace TestCameraProvider
} // namespace vistrel::test
