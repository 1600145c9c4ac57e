#include "camera/SampleImage.h"

#include <gst/gst.h>
#include <gst/video/video.h>

namespace vistrel::camera {
namespace {

static_assert(Q_BYTE_ORDER == Q_LITTLE_ENDIAN, "BGRx is QImage::Format_RGB32 only on little-endian machines");

// Keeps the mapped video frame (and with it a reference to its buffer) alive for as
// long as a QImage looks at its pixels.
struct MappedFrame
{
    GstVideoFrame frame;
};

void releaseMappedFrame(void *info)
{
    auto *mapped = static_cast<MappedFrame *>(info);
    gst_video_frame_unmap(&mapped->frame);
    delete mapped;
}

} // namespace

QImage imageFromSample(GstSample *sample)
{
    if (!sample)
        return {};
    GstBuffer *buffer = gst_sample_get_buffer(sample);
    GstCaps *caps = gst_sample_get_caps(sample);
    GstVideoInfo info;
    if (!buffer || !caps || !gst_video_info_from_caps(&info, caps))
        return {};
    if (GST_VIDEO_INFO_FORMAT(&info) != GST_VIDEO_FORMAT_BGRx)
        return {};

    auto *mapped = new MappedFrame;
    // gst_video_frame_map takes its own reference on the buffer.
    if (!gst_video_frame_map(&mapped->frame, &info, buffer, GST_MAP_READ)) {
        delete mapped;
        return {};
    }
    const auto *pixels = static_cast<const uchar *>(GST_VIDEO_FRAME_PLANE_DATA(&mapped->frame, 0));
    const int stride = GST_VIDEO_FRAME_PLANE_STRIDE(&mapped->frame, 0);
    // The const constructor makes a read-only image: Qt copies before any write, so
    // the decoder's memory is never modified through it.
    return QImage(pixels, GST_VIDEO_INFO_WIDTH(&info), GST_VIDEO_INFO_HEIGHT(&info), stride, QImage::Format_RGB32,
                  releaseMappedFrame, mapped);
}

} // namespace vistrel::camera
