#pragma once
#include "camera/gst/ColumnPick.h"

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
// A frame larger than the largest picture wanted is shrunk as it is converted,
// by nearest pixels: only the rows the picture keeps are converted, and at the
// common ratios (1920, 2560 and 3840 wide to 1280) only the columns it keeps
// too, picked from the YUV row before conversion. At other ratios a kept row is
// converted whole into a one-row buffer that stays in cache, and the kept
// columns are picked from that. The large frame is never written out whole, and
// nearest pixels are what the picture's later stretch would have picked anyway.
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
    // One row's kept columns, as planes at the picture's width, and their layout.
    GstVideoFormat pickColumns(const Planes &row, Planes &picked);
    // Where each picked plane starts in m_pickedRow: aligned, and wide enough for
    // a row of chroma pairs.
    int pickedPlaneStride() const { return (GST_VIDEO_INFO_WIDTH(&m_picture) + 1 + 63) & ~63; }
    void reset();

    GstCaps *m_inputCaps = nullptr;
    QSize m_largest;
    bool m_shrinking = false;
    ColumnRatio m_columnRatio = ColumnRatio::Other;
    std::vector<std::uint8_t> m_row;       // one converted row at the camera's width
    std::vector<std::uint8_t> m_pickedRow; // a row's kept columns, in planes
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
