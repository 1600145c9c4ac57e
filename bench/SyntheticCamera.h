#pragma once
#include "camera/CameraDevice.h"

#include <QString>
#include <memory>

typedef struct _GstBuffer GstBuffer;
typedef struct _GstCaps GstCaps;
typedef struct _GstElement GstElement;
typedef struct _GstSample GstSample;

namespace vistrel::bench {

// The formats cameras deliver: packed 4:2:2, the two 4:2:0 layouts, and MJPEG (which
// the intake decodes to 4:2:0 first).
enum class CameraFormat { YUY2, NV12, I420, MJPEG };

struct FrameKind
{
    CameraFormat format;
    int width;
    int height;
};

const char *formatName(CameraFormat format);
QString kindName(const FrameKind &kind); // "YUY2/1920x1080"

using SamplePtr = std::shared_ptr<GstSample>;

// One camera frame of the given kind, made once by GStreamer (videotestsrc, and jpegenc
// for MJPEG): the buffer and caps a camera source would hand to the intake.
SamplePtr makeCameraSample(const FrameKind &kind);

// The first frame of a video file, as the camera would hand it over: for the raw formats
// the frame's planes packed with no row padding (as ffmpeg's rawvideo writes them), for
// MJPEG a stream of whole JPEGs one after the other (as ffmpeg's mjpeg muxer or `cat`
// writes it), of which the first is taken. Null when the file holds no such frame of the
// kind's size.
SamplePtr readRawFrame(const QString &path, const FrameKind &kind);

// A camera device whose source element is made from a gst-launch description, the way
// a real camera's GstDevice makes v4l2src or pipewiresrc. The element made last is
// kept, so a push-driven source (appsrc) can be fed by its owner.
class SyntheticCamera
{
public:
    SyntheticCamera(const QString &name, const QString &sourceDescription);

    camera::CameraDevice device() const { return m_device; }
    // The source element made last by the device, or null.
    GstElement *lastSource() const;

    // A push-driven camera (an appsrc): its owner sets the caps on lastSource() and
    // pushes the frames.
    static QString pushSourceDescription();

private:
    camera::CameraDevice m_device;
};

} // namespace vistrel::bench
