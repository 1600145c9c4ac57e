#pragma once
#include <QImage>

typedef struct _GstSample GstSample;

namespace vistrel::camera {

// The raw video format the capture and movie pipelines convert to, once, so that a
// decoded buffer can be shown as a QImage as it is: BGRx in memory is
// QImage::Format_RGB32 on little-endian machines.
inline constexpr const char *kPictureCaps = "video/x-raw,format=BGRx";

// Wraps the sample's video buffer in an immutable QImage without copying the pixels.
// The buffer stays mapped and referenced until the last copy of the QImage is gone.
// Answers a null image for a sample without a buffer, without video caps, or whose
// buffer cannot be mapped.
QImage imageFromSample(GstSample *sample);

} // namespace vistrel::camera
