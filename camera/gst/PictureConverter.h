#pragma once
#include "camera/gst/ShrinkFilter.h"

#include <QSize>
#include <cstdint>
#include <gst/video/video.h>
#include <vector>

namespace libyuv {
struct YuvConstants;
}

namespace vistrel::camera {

// Turns each decoded camera frame into a picture-format (BGRx) sample. Buffers
// come from a pool and go back to it once the last picture made of them is
// released, so a frame costs no pixel allocation. Used by one streaming thread
// at a time.
//
// A frame larger than the largest picture wanted is shrunk as it is converted, with a
// filter, so stripes, text and edges stay smooth instead of aliasing. At the common
// ratios (1920x1080, 2560x1440 and 3840x2160 to 1280x720) this is done a row at a time
// on the YUV planes (see ShrinkFilter.h): the row is blended from its source rows, its
// columns shrunk, and the small row converted while it is still in cache; the large
// frame is never written out whole. At other ratios libyuv's box filter (bilinear
// where it shrinks by less than half) shrinks the planes whole first.
//
// BT.601 (what USB cameras and JPEG use) goes through libyuv. libyuv's BT.709
// and BT.2020 tables clip strong blues by up to 16 levels, so frames in those
// matrices go through GStreamer's own converter instead: slower, but true to
// the camera.
class PictureConverter
{
public:
    PictureConverter() = default;
    ~PictureConverter() { reset(); }
    PictureConverter(const PictureConverter &) = delete;
    PictureConverter &operator=(const PictureConverter &) = delete;

    // A new reference to a sample in the picture format: the sample itself when
    // it is in that format already (or in one this cannot convert), else a
    // converted copy. Null (the frame is dropped) while every picture buffer is
    // still held. `largest` (when not empty) bounds the picture's width and
    // height.
    GstSample *toPicture(GstSample *sample, QSize largest);

private:
    // Where a frame's rows start in its planes (packed formats: y alone).
    struct Planes
    {
        const std::uint8_t *y = nullptr, *u = nullptr, *v = nullptr;
        int yStride = 0, uStride = 0, vStride = 0;
        bool chromaHalfHeight = false; // 4:2:0: one chroma row for two rows

        static Planes of(const GstVideoFrame &frame);
        Planes fromRow(int row) const;
    };

    // Splits one packed 4:2:2 row (YUY2 or UYVY) of the camera's width into a Y, a U
    // and a V row laid one after the other in m_planes, chroma half as wide.
    Planes splitPackedRow(GstVideoFormat format, const std::uint8_t *packed, int width);

    bool prepare(GstCaps *caps, QSize largest);
    void convert(const GstVideoFrame &in, GstVideoFrame &out);
    void convertRows(GstVideoFormat format, const Planes &in, int width, int rows, std::uint8_t *bgrx, int bgrxStride);
    // One picture row blended from its source rows, at the camera's width, in m_blended
    // (or the source row itself when the height is kept).
    Planes blendedRow(const Planes &frame, int row);
    // A row at the camera's width shrunk to the picture's, in m_shrunk; `format` becomes
    // the shrunk row's.
    Planes shrunkRow(const Planes &row, GstVideoFormat &format);
    // The frame's planes shrunk whole into m_scaled by libyuv, then converted.
    void shrinkWhole(const Planes &frame, std::uint8_t *bgrx, int bgrxStride);
    void reset();

    GstCaps *m_inputCaps = nullptr;
    QSize m_largest;
    bool m_shrinking = false;
    bool m_shrinksByRows = false; // both ratios are ones the row shrinking knows
    ShrinkRatio m_widthRatio = ShrinkRatio::OneToOne;
    ShrinkRatio m_heightRatio = ShrinkRatio::OneToOne;
    // Bytes of one camera row's first plane (or packed row) and of its chroma plane(s).
    struct RowBytes
    {
        int first = 0, chroma = 0;
    };
    RowBytes m_sourceRow;
    std::vector<std::uint8_t> m_blended; // one blended row, planes one after the other
    std::vector<std::uint8_t> m_shrunk;  // the same row at the picture's width
    std::vector<std::uint8_t> m_split;   // a packed frame as 4:2:2 planes, for shrinkWhole
    std::vector<std::uint8_t> m_scaled;  // the planes at the picture's size, for shrinkWhole
    bool m_passthrough = true;
    GstVideoInfo m_in{};
    GstVideoInfo m_picture{};
    GstCaps *m_pictureCaps = nullptr;
    GstBufferPool *m_pool = nullptr;
    const libyuv::YuvConstants *m_matrix = nullptr;
    GstVideoConverter *m_exactConverter = nullptr; // for the matrices libyuv approximates
    std::vector<std::uint8_t> m_planes;            // a packed row split into 4:2:2 planes
};

} // namespace vistrel::camera
