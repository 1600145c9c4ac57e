#include "camera/gst/PictureConverter.h"

#include <algorithm>
#include <libyuv/convert_argb.h>
#include <libyuv/planar_functions.h>
#include <libyuv/scale_argb.h>

namespace vistrel::camera {

namespace {

constexpr guint kPicturesInFlight = 3;

// libyuv's table for a BT.601 frame, or null for the other matrices.
const libyuv::YuvConstants *libyuvMatrixFor(const GstVideoColorimetry &colorimetry)
{
    switch (colorimetry.matrix) {
    case GST_VIDEO_COLOR_MATRIX_BT601:
    case GST_VIDEO_COLOR_MATRIX_UNKNOWN:
        return colorimetry.range == GST_VIDEO_COLOR_RANGE_0_255 ? &libyuv::kYuvJPEGConstants
                                                                : &libyuv::kYuvI601Constants;
    default: return nullptr;
    }
}

} // namespace

void PictureConverter::reset()
{
    if (m_exactConverter) {
        gst_video_converter_free(m_exactConverter);
        m_exactConverter = nullptr;
    }
    if (m_pool) {
        gst_buffer_pool_set_active(m_pool, FALSE);
        gst_object_unref(m_pool);
        m_pool = nullptr;
    }
    gst_clear_caps(&m_pictureCaps);
    gst_clear_caps(&m_inputCaps);
    m_passthrough = true;
}

bool PictureConverter::prepare(GstCaps *caps, QSize largest)
{
    reset();
    m_inputCaps = gst_caps_ref(caps);
    m_largest = largest;
    if (!gst_video_info_from_caps(&m_in, caps))
        return false;
    switch (GST_VIDEO_INFO_FORMAT(&m_in)) {
    case GST_VIDEO_FORMAT_YUY2:
    case GST_VIDEO_FORMAT_UYVY:
    case GST_VIDEO_FORMAT_NV12:
    case GST_VIDEO_FORMAT_NV21:
    case GST_VIDEO_FORMAT_I420:
    case GST_VIDEO_FORMAT_YV12:
    case GST_VIDEO_FORMAT_Y42B:
    case GST_VIDEO_FORMAT_Y444: break;
    default: return false; // BGRx passes as it is
    }

    const int width = GST_VIDEO_INFO_WIDTH(&m_in);
    const int height = GST_VIDEO_INFO_HEIGHT(&m_in);
    const int pictureWidth = largest.isEmpty() ? width : std::min(width, largest.width());
    const int pictureHeight = largest.isEmpty() ? height : std::min(height, largest.height());
    m_shrinking = pictureWidth != width || pictureHeight != height;
    // Columns are picked before conversion when the luma and the chroma rows both
    // shrink by the same whole-number ratio (4:2:x chroma is half as wide).
    const bool chromaHalfWidth = GST_VIDEO_INFO_FORMAT(&m_in) != GST_VIDEO_FORMAT_Y444;
    m_columnRatio = columnRatio(width, pictureWidth);
    if (chromaHalfWidth && columnRatio((width + 1) / 2, (pictureWidth + 1) / 2) != m_columnRatio)
        m_columnRatio = ColumnRatio::Other;
    const bool picksBeforeConversion = m_columnRatio != ColumnRatio::Other;
    m_row.resize(pictureWidth != width && !picksBeforeConversion ? static_cast<std::size_t>(width) * 4 : 0);
    // A packed row split into planes: Y, then U and V half as wide.
    const bool packed =
        GST_VIDEO_INFO_FORMAT(&m_in) == GST_VIDEO_FORMAT_YUY2 || GST_VIDEO_INFO_FORMAT(&m_in) == GST_VIDEO_FORMAT_UYVY;
    m_planes.resize(packed ? static_cast<std::size_t>(width + 2 * ((width + 1) / 2)) : 0);

    GstVideoInfo &picture = m_picture;
    gst_video_info_set_format(&picture, GST_VIDEO_FORMAT_BGRx, static_cast<guint>(pictureWidth),
                              static_cast<guint>(pictureHeight));
    GST_VIDEO_INFO_FPS_N(&picture) = GST_VIDEO_INFO_FPS_N(&m_in);
    GST_VIDEO_INFO_FPS_D(&picture) = GST_VIDEO_INFO_FPS_D(&m_in);
    GST_VIDEO_INFO_PAR_N(&picture) = GST_VIDEO_INFO_PAR_N(&m_in);
    GST_VIDEO_INFO_PAR_D(&picture) = GST_VIDEO_INFO_PAR_D(&m_in);
    m_pictureCaps = gst_video_info_to_caps(&picture);
    m_pickedRow.resize(picksBeforeConversion ? static_cast<std::size_t>(pickedPlaneStride()) * 3 : 0);

    m_matrix = libyuvMatrixFor(GST_VIDEO_INFO_COLORIMETRY(&m_in));
    if (!m_matrix) {
        // GStreamer's converter shrinks as it converts; by nearest pixels, as
        // below.
        GstStructure *options =
            gst_structure_new("options", GST_VIDEO_CONVERTER_OPT_RESAMPLER_METHOD, GST_TYPE_VIDEO_RESAMPLER_METHOD,
                              GST_VIDEO_RESAMPLER_METHOD_NEAREST, nullptr);
        m_exactConverter = gst_video_converter_new(&m_in, &picture, options);
        if (!m_exactConverter)
            return false;
    }

    m_pool = gst_video_buffer_pool_new();
    GstStructure *config = gst_buffer_pool_get_config(m_pool);
    // The current picture, the newest one on its way to the main thread and the
    // one being made. When the main thread lags and all are held, the frame is
    // dropped (as a late frame is) rather than the pool growing: a 1080p picture
    // is 8 MB.
    gst_buffer_pool_config_set_params(config, m_pictureCaps, static_cast<guint>(GST_VIDEO_INFO_SIZE(&picture)), 2,
                                      kPicturesInFlight);
    GstAllocationParams params;
    gst_allocation_params_init(&params);
    params.align = 63; // rows start on cache lines: the vector code reads them whole
    gst_buffer_pool_config_set_allocator(config, nullptr, &params);
    if (!gst_buffer_pool_set_config(m_pool, config) || !gst_buffer_pool_set_active(m_pool, TRUE)) {
        gst_object_unref(m_pool);
        m_pool = nullptr;
        return false;
    }
    m_passthrough = false;
    return true;
}

PictureConverter::Planes PictureConverter::Planes::of(const GstVideoFrame &frame)
{
    Planes planes;
    switch (GST_VIDEO_FRAME_FORMAT(&frame)) {
    case GST_VIDEO_FORMAT_YUY2:
    case GST_VIDEO_FORMAT_UYVY:
        planes.y = static_cast<const std::uint8_t *>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
        planes.yStride = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0);
        return planes;
    case GST_VIDEO_FORMAT_NV12:
    case GST_VIDEO_FORMAT_I420:
    case GST_VIDEO_FORMAT_YV12: planes.chromaHalfHeight = true; break;
    case GST_VIDEO_FORMAT_NV21:
        // The interleaved plane starts with V: its first byte, not U's, is the row
        // start.
        planes.chromaHalfHeight = true;
        planes.y = static_cast<const std::uint8_t *>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
        planes.yStride = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0);
        planes.u = static_cast<const std::uint8_t *>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 1));
        planes.uStride = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 1);
        return planes;
    default: break;
    }
    // The component pointers put YV12's swapped planes right.
    planes.y = static_cast<const std::uint8_t *>(GST_VIDEO_FRAME_COMP_DATA(&frame, GST_VIDEO_COMP_Y));
    planes.yStride = GST_VIDEO_FRAME_COMP_STRIDE(&frame, GST_VIDEO_COMP_Y);
    planes.u = static_cast<const std::uint8_t *>(GST_VIDEO_FRAME_COMP_DATA(&frame, GST_VIDEO_COMP_U));
    planes.uStride = GST_VIDEO_FRAME_COMP_STRIDE(&frame, GST_VIDEO_COMP_U);
    planes.v = static_cast<const std::uint8_t *>(GST_VIDEO_FRAME_COMP_DATA(&frame, GST_VIDEO_COMP_V));
    planes.vStride = GST_VIDEO_FRAME_COMP_STRIDE(&frame, GST_VIDEO_COMP_V);
    return planes;
}

PictureConverter::Planes PictureConverter::splitPackedRow(GstVideoFormat format, const std::uint8_t *packed, int width)
{
    const int chromaWidth = (width + 1) / 2;
    Q_ASSERT(m_planes.size() >= static_cast<std::size_t>(width + 2 * chromaWidth)); // sized by prepare()
    auto *y = m_planes.data();
    auto *u = y + width;
    auto *v = u + chromaWidth;
    if (format == GST_VIDEO_FORMAT_YUY2)
        libyuv::YUY2ToI422(packed, width * 2, y, width, u, chromaWidth, v, chromaWidth, width, 1);
    else
        libyuv::UYVYToI422(packed, width * 2, y, width, u, chromaWidth, v, chromaWidth, width, 1);
    Planes split;
    split.y = y;
    split.u = u;
    split.v = v;
    split.yStride = width;
    split.uStride = split.vStride = chromaWidth;
    return split;
}

PictureConverter::Planes PictureConverter::Planes::fromRow(int row) const
{
    Planes planes = *this;
    const int chromaRow = chromaHalfHeight ? row / 2 : row;
    planes.y += static_cast<std::ptrdiff_t>(row) * yStride;
    if (planes.u)
        planes.u += static_cast<std::ptrdiff_t>(chromaRow) * uStride;
    if (planes.v)
        planes.v += static_cast<std::ptrdiff_t>(chromaRow) * vStride;
    return planes;
}

void PictureConverter::convert(const GstVideoFrame &in, GstVideoFrame &out)
{
    if (m_exactConverter) {
        gst_video_converter_frame(m_exactConverter, &in, &out);
        return;
    }
    auto *bgrx = static_cast<std::uint8_t *>(GST_VIDEO_FRAME_PLANE_DATA(&out, 0));
    const int bgrxStride = GST_VIDEO_FRAME_PLANE_STRIDE(&out, 0);
    const int width = GST_VIDEO_FRAME_WIDTH(&in);
    const int height = GST_VIDEO_FRAME_HEIGHT(&in);
    const GstVideoFormat format = GST_VIDEO_INFO_FORMAT(&m_in);
    const Planes planes = Planes::of(in);
    if (!m_shrinking) {
        convertRows(format, planes, width, height, bgrx, bgrxStride);
        return;
    }
    const int pictureWidth = GST_VIDEO_FRAME_WIDTH(&out);
    const int pictureHeight = GST_VIDEO_FRAME_HEIGHT(&out);
    for (int row = 0; row < pictureHeight; ++row) {
        // The source row nearest to this row's centre.
        const int sourceRow = static_cast<int>((2 * static_cast<std::int64_t>(row) + 1) * height / (2 * pictureHeight));
        std::uint8_t *pictureRow = bgrx + static_cast<std::ptrdiff_t>(row) * bgrxStride;
        const Planes sourcePlanes = planes.fromRow(sourceRow);
        if (pictureWidth == width) {
            convertRows(format, sourcePlanes, width, 1, pictureRow, bgrxStride);
            continue;
        }
        if (m_columnRatio != ColumnRatio::Other) {
            Planes picked;
            const GstVideoFormat pickedFormat = pickColumns(sourcePlanes, picked);
            convertRows(pickedFormat, picked, pictureWidth, 1, pictureRow, bgrxStride);
            continue;
        }
        convertRows(format, sourcePlanes, width, 1, m_row.data(), width * 4);
        libyuv::ARGBScale(m_row.data(), width * 4, width, 1, pictureRow, bgrxStride, pictureWidth, 1,
                          libyuv::kFilterNone);
    }
}

GstVideoFormat PictureConverter::pickColumns(const Planes &row, Planes &picked)
{
    const int width = GST_VIDEO_INFO_WIDTH(&m_in);
    const int pictureWidth = GST_VIDEO_INFO_WIDTH(&m_picture);
    const int pictureChromaWidth = (pictureWidth + 1) / 2;
    const ColumnRatio ratio = m_columnRatio;
    auto *y = m_pickedRow.data();
    auto *u = y + pickedPlaneStride();
    auto *v = u + pickedPlaneStride();
    picked.y = y;
    picked.u = u;
    picked.v = v;
    // The strides are never stepped: a picked row is converted alone.

    GstVideoFormat format = GST_VIDEO_INFO_FORMAT(&m_in);
    Planes source = row;
    if (format == GST_VIDEO_FORMAT_YUY2 || format == GST_VIDEO_FORMAT_UYVY) {
        // Split into planes first (one vector pass), then picked as I422.
        source = splitPackedRow(format, row.y, width);
        format = GST_VIDEO_FORMAT_Y42B;
    }
    vistrel::camera::pickColumns(ratio, source.y, y, pictureWidth);
    switch (format) {
    case GST_VIDEO_FORMAT_NV12:
    case GST_VIDEO_FORMAT_NV21:
        // The chroma pairs are picked whole, as two-byte samples.
        vistrel::camera::pickColumns(ratio, reinterpret_cast<const std::uint16_t *>(source.u),
                                     reinterpret_cast<std::uint16_t *>(u), pictureChromaWidth);
        return format;
    case GST_VIDEO_FORMAT_Y444:
        vistrel::camera::pickColumns(ratio, source.u, u, pictureWidth);
        vistrel::camera::pickColumns(ratio, source.v, v, pictureWidth);
        return format;
    default: // I420, YV12, Y42B and split packed rows: one row of any of them is a row of I422
        vistrel::camera::pickColumns(ratio, source.u, u, pictureChromaWidth);
        vistrel::camera::pickColumns(ratio, source.v, v, pictureChromaWidth);
        return GST_VIDEO_FORMAT_Y42B;
    }
}

void PictureConverter::convertRows(GstVideoFormat format, const Planes &in, int width, int height, std::uint8_t *bgrx,
                                   int bgrxStride)
{
    const auto *y = in.y;
    const int yStride = in.yStride;
    const auto *u = in.u;
    const int uStride = in.uStride;
    const auto *v = in.v;
    const int vStride = in.vStride;
    // libyuv's "ARGB" is B,G,R,A in memory: BGRx with an opaque fourth byte.
    switch (format) {
    case GST_VIDEO_FORMAT_I420:
    case GST_VIDEO_FORMAT_YV12: // the same planes in another order; the component
                                // pointers sort that out
        libyuv::I420ToARGBMatrix(y, yStride, u, uStride, v, vStride, bgrx, bgrxStride, m_matrix, width, height);
        break;
    case GST_VIDEO_FORMAT_Y42B:
        libyuv::I422ToARGBMatrix(y, yStride, u, uStride, v, vStride, bgrx, bgrxStride, m_matrix, width, height);
        break;
    case GST_VIDEO_FORMAT_Y444:
        libyuv::I444ToARGBMatrix(y, yStride, u, uStride, v, vStride, bgrx, bgrxStride, m_matrix, width, height);
        break;
    case GST_VIDEO_FORMAT_NV12:
        libyuv::NV12ToARGBMatrix(y, yStride, u, uStride, bgrx, bgrxStride, m_matrix, width, height);
        break;
    case GST_VIDEO_FORMAT_NV21:
        libyuv::NV21ToARGBMatrix(y, yStride, u, uStride, bgrx, bgrxStride, m_matrix, width, height); // VU pairs
        break;
    case GST_VIDEO_FORMAT_YUY2:
    case GST_VIDEO_FORMAT_UYVY: {
        // libyuv's packed converters know limited-range BT.601 only; a full-range
        // frame is split into planes first, a row at a time so the split row is still
        // in the first-level cache when it is converted.
        if (m_matrix == &libyuv::kYuvI601Constants) {
            if (format == GST_VIDEO_FORMAT_YUY2)
                libyuv::YUY2ToARGB(y, yStride, bgrx, bgrxStride, width, height);
            else
                libyuv::UYVYToARGB(y, yStride, bgrx, bgrxStride, width, height);
            break;
        }
        for (int row = 0; row < height; ++row) {
            const Planes split = splitPackedRow(format, y + static_cast<std::ptrdiff_t>(row) * yStride, width);
            convertRows(GST_VIDEO_FORMAT_Y42B, split, width, 1, bgrx + static_cast<std::ptrdiff_t>(row) * bgrxStride,
                        bgrxStride);
        }
        break;
    }
    default: break;
    }
}

GstSample *PictureConverter::toPicture(GstSample *sample, QSize largest)
{
    GstCaps *caps = gst_sample_get_caps(sample);
    GstBuffer *buffer = gst_sample_get_buffer(sample);
    if (!caps || !buffer)
        return gst_sample_ref(sample);
    if (largest != m_largest || (caps != m_inputCaps && (!m_inputCaps || !gst_caps_is_equal(caps, m_inputCaps))))
        prepare(caps, largest);
    if (m_passthrough)
        return gst_sample_ref(sample);

    GstBuffer *pictureBuffer = nullptr;
    GstBufferPoolAcquireParams noWaiting{};
    noWaiting.flags = GST_BUFFER_POOL_ACQUIRE_FLAG_DONTWAIT;
    if (gst_buffer_pool_acquire_buffer(m_pool, &pictureBuffer, &noWaiting) != GST_FLOW_OK)
        return nullptr;
    GstVideoFrame in, out;
    if (!gst_video_frame_map(&in, &m_in, buffer, GST_MAP_READ)) {
        gst_buffer_unref(pictureBuffer);
        return nullptr;
    }
    if (!gst_video_frame_map(&out, &m_picture, pictureBuffer, GST_MAP_WRITE)) {
        gst_video_frame_unmap(&in);
        gst_buffer_unref(pictureBuffer);
        return nullptr;
    }
    convert(in, out);
    gst_video_frame_unmap(&out);
    gst_video_frame_unmap(&in);
    GST_BUFFER_PTS(pictureBuffer) = GST_BUFFER_PTS(buffer);
    GST_BUFFER_DTS(pictureBuffer) = GST_BUFFER_DTS(buffer);
    GST_BUFFER_DURATION(pictureBuffer) = GST_BUFFER_DURATION(buffer);
    GstSample *picture = gst_sample_new(pictureBuffer, m_pictureCaps, gst_sample_get_segment(sample), nullptr);
    gst_buffer_unref(pictureBuffer);
    return picture;
}

} // namespace vistrel::camera
