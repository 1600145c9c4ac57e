#include "camera/gst/PictureConverter.h"

#include <algorithm>
#include <libyuv/convert_argb.h>
#include <libyuv/planar_functions.h>
#include <libyuv/scale.h>

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

    const GstVideoFormat format = GST_VIDEO_INFO_FORMAT(&m_in);
    const int width = GST_VIDEO_INFO_WIDTH(&m_in);
    const int height = GST_VIDEO_INFO_HEIGHT(&m_in);
    const int pictureWidth = largest.isEmpty() ? width : std::min(width, largest.width());
    const int pictureHeight = largest.isEmpty() ? height : std::min(height, largest.height());
    m_shrinking = pictureWidth != width || pictureHeight != height;
    const bool packed = format == GST_VIDEO_FORMAT_YUY2 || format == GST_VIDEO_FORMAT_UYVY;
    // A packed row split into planes (Y, then U and V half as wide), or an interleaved
    // chroma row into U and V.
    const bool pairs = format == GST_VIDEO_FORMAT_NV12 || format == GST_VIDEO_FORMAT_NV21;
    m_planes.resize(packed || pairs ? static_cast<std::size_t>(width + 2 * ((width + 1) / 2)) : 0);

    // Rows are shrunk one at a time when the luma and the chroma both shrink by the
    // same ratio the row shrinking knows, across and down (4:2:x chroma is half as
    // wide, 4:2:0 half as high).
    const bool chromaHalfWidth = format != GST_VIDEO_FORMAT_Y444;
    const bool chromaHalfHeight = format == GST_VIDEO_FORMAT_NV12 || format == GST_VIDEO_FORMAT_NV21
        || format == GST_VIDEO_FORMAT_I420 || format == GST_VIDEO_FORMAT_YV12;
    m_widthRatio = shrinkRatio(width, pictureWidth);
    if (chromaHalfWidth && shrinkRatio((width + 1) / 2, (pictureWidth + 1) / 2) != m_widthRatio)
        m_widthRatio = ShrinkRatio::Other;
    m_heightRatio = shrinkRatio(height, pictureHeight);
    if (chromaHalfHeight && shrinkRatio((height + 1) / 2, (pictureHeight + 1) / 2) != m_heightRatio)
        m_heightRatio = ShrinkRatio::Other;
    m_shrinksByRows = m_widthRatio != ShrinkRatio::Other && m_heightRatio != ShrinkRatio::Other;
    const int chromaWidth = chromaHalfWidth ? (width + 1) / 2 : width;
    m_sourceRow = packed ? RowBytes{4 * chromaWidth, 0} : RowBytes{width, pairs ? 2 * chromaWidth : chromaWidth};
    const bool byRows = m_shrinking && m_shrinksByRows;
    m_blended.resize(byRows ? static_cast<std::size_t>(m_sourceRow.first + 2 * m_sourceRow.chroma) : 0);
    // A shrunk row is always planes: Y, then U and V (as wide as Y for 4:4:4).
    const int pictureChromaWidth = chromaHalfWidth ? (pictureWidth + 1) / 2 : pictureWidth;
    m_shrunk.resize(byRows ? static_cast<std::size_t>(pictureWidth + 2 * pictureChromaWidth) : 0);
    // Shrinking whole: a packed frame split into 4:2:2 planes, and the planes at the
    // picture's size (at most three full planes, 4:4:4).
    const bool whole = m_shrinking && !m_shrinksByRows;
    m_split.resize(whole && packed ? static_cast<std::size_t>(height) * (width + 2 * ((width + 1) / 2)) : 0);
    m_scaled.resize(whole ? static_cast<std::size_t>(pictureHeight) * pictureWidth * 3 : 0);

    GstVideoInfo &picture = m_picture;
    gst_video_info_set_format(&picture, GST_VIDEO_FORMAT_BGRx, static_cast<guint>(pictureWidth),
                              static_cast<guint>(pictureHeight));
    GST_VIDEO_INFO_FPS_N(&picture) = GST_VIDEO_INFO_FPS_N(&m_in);
    GST_VIDEO_INFO_FPS_D(&picture) = GST_VIDEO_INFO_FPS_D(&m_in);
    GST_VIDEO_INFO_PAR_N(&picture) = GST_VIDEO_INFO_PAR_N(&m_in);
    GST_VIDEO_INFO_PAR_D(&picture) = GST_VIDEO_INFO_PAR_D(&m_in);
    m_pictureCaps = gst_video_info_to_caps(&picture);

    m_matrix = libyuvMatrixFor(GST_VIDEO_INFO_COLORIMETRY(&m_in));
    if (!m_matrix) {
        // GStreamer's converter shrinks as it converts; its linear resampler widens
        // to the ratio when shrinking, so it smooths as the area shrinking does.
        GstStructure *options =
            gst_structure_new("options", GST_VIDEO_CONVERTER_OPT_RESAMPLER_METHOD, GST_TYPE_VIDEO_RESAMPLER_METHOD,
                              GST_VIDEO_RESAMPLER_METHOD_LINEAR, nullptr);
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
    if (!m_shrinksByRows) {
        shrinkWhole(planes, bgrx, bgrxStride);
        return;
    }
    const int pictureWidth = GST_VIDEO_FRAME_WIDTH(&out);
    const int pictureHeight = GST_VIDEO_FRAME_HEIGHT(&out);
    for (int row = 0; row < pictureHeight; ++row) {
        GstVideoFormat rowFormat = format;
        const Planes shrunk = shrunkRow(blendedRow(planes, row), rowFormat);
        convertRows(rowFormat, shrunk, pictureWidth, 1, bgrx + static_cast<std::ptrdiff_t>(row) * bgrxStride,
                    bgrxStride);
    }
}

PictureConverter::Planes PictureConverter::blendedRow(const Planes &frame, int row)
{
    if (m_heightRatio == ShrinkRatio::OneToOne)
        return frame.fromRow(row);
    Planes blended = frame;
    auto *first = m_blended.data();
    auto *u = first + m_sourceRow.first;
    auto *v = u + m_sourceRow.chroma;
    const int height = GST_VIDEO_INFO_HEIGHT(&m_in);
    const int chromaHeight = frame.chromaHalfHeight ? (height + 1) / 2 : height;
    const auto blend = [this](ShrinkKernel kernel, const std::uint8_t *plane, int stride, int planeHeight, int planeRow,
                              std::uint8_t *out, int bytes) {
        const RowSpan span = sourceRows(m_heightRatio, kernel, planeRow);
        const std::uint8_t *rows[kMostSourceRows] = {};
        for (int i = 0; i < span.count; ++i) // the edge rows stand for those beyond them
            rows[i] = plane + static_cast<std::ptrdiff_t>(std::clamp(span.first + i, 0, planeHeight - 1)) * stride;
        blendRows(m_heightRatio, kernel, planeRow, rows, out, bytes);
    };
    // A packed row holds chroma too: it all takes the luma's kernel.
    blend(ShrinkKernel::Bicubic, frame.y, frame.yStride, height, row, first, m_sourceRow.first);
    blended.y = first;
    // A 4:2:0 chroma row serves two rows: the second finds it blended already.
    const bool chromaBlended = frame.chromaHalfHeight && row % 2 == 1;
    const int chromaRow = frame.chromaHalfHeight ? row / 2 : row;
    if (frame.u) {
        if (!chromaBlended)
            blend(ShrinkKernel::Mean, frame.u, frame.uStride, chromaHeight, chromaRow, u, m_sourceRow.chroma);
        blended.u = u;
    }
    if (frame.v) {
        if (!chromaBlended)
            blend(ShrinkKernel::Mean, frame.v, frame.vStride, chromaHeight, chromaRow, v, m_sourceRow.chroma);
        blended.v = v;
    }
    // The strides are never stepped: a blended row is converted alone.
    return blended;
}

PictureConverter::Planes PictureConverter::shrunkRow(const Planes &row, GstVideoFormat &format)
{
    if (m_widthRatio == ShrinkRatio::OneToOne)
        return row;
    // Interleaved rows are split into planes first (one vector pass each): a plane's
    // columns shrink several times faster than interleaved ones, and a row of planes
    // converts as fast.
    Planes source = row;
    switch (format) {
    case GST_VIDEO_FORMAT_YUY2:
    case GST_VIDEO_FORMAT_UYVY:
        source = splitPackedRow(format, row.y, GST_VIDEO_INFO_WIDTH(&m_in));
        format = GST_VIDEO_FORMAT_Y42B;
        break;
    case GST_VIDEO_FORMAT_NV12:
    case GST_VIDEO_FORMAT_NV21: {
        const int pairs = m_sourceRow.chroma / 2;
        auto *first = m_planes.data(), *second = first + pairs;
        libyuv::SplitUVPlane(row.u, 0, first, 0, second, 0, pairs, 1);
        const bool uFirst = format == GST_VIDEO_FORMAT_NV12;
        source.u = uFirst ? first : second;
        source.v = uFirst ? second : first;
        format = GST_VIDEO_FORMAT_Y42B;
        break;
    }
    default: break;
    }
    const bool fullChroma = format == GST_VIDEO_FORMAT_Y444;
    const int sourceWidth = GST_VIDEO_INFO_WIDTH(&m_in);
    const int sourceChromaWidth = fullChroma ? sourceWidth : (sourceWidth + 1) / 2;
    const int width = GST_VIDEO_INFO_WIDTH(&m_picture);
    const int chromaWidth = fullChroma ? width : (width + 1) / 2;
    Planes shrunk = source;
    auto *y = m_shrunk.data();
    auto *u = y + width;
    auto *v = u + chromaWidth;
    shrinkColumns(m_widthRatio, ShrinkKernel::Bicubic, source.y, sourceWidth, y, width);
    shrinkColumns(m_widthRatio, ShrinkKernel::Mean, source.u, sourceChromaWidth, u, chromaWidth);
    shrinkColumns(m_widthRatio, ShrinkKernel::Mean, source.v, sourceChromaWidth, v, chromaWidth);
    shrunk.y = y;
    shrunk.u = u;
    shrunk.v = v;
    return shrunk;
}

void PictureConverter::shrinkWhole(const Planes &frame, std::uint8_t *bgrx, int bgrxStride)
{
    GstVideoFormat format = GST_VIDEO_INFO_FORMAT(&m_in);
    const int width = GST_VIDEO_INFO_WIDTH(&m_in);
    const int height = GST_VIDEO_INFO_HEIGHT(&m_in);
    const int pictureWidth = GST_VIDEO_INFO_WIDTH(&m_picture);
    const int pictureHeight = GST_VIDEO_INFO_HEIGHT(&m_picture);
    Planes source = frame;
    if (format == GST_VIDEO_FORMAT_YUY2 || format == GST_VIDEO_FORMAT_UYVY) {
        // libyuv scales planes only: a packed frame is split into 4:2:2 planes first.
        const int chromaWidth = (width + 1) / 2;
        auto *y = m_split.data();
        auto *u = y + static_cast<std::ptrdiff_t>(width) * height;
        auto *v = u + static_cast<std::ptrdiff_t>(chromaWidth) * height;
        if (format == GST_VIDEO_FORMAT_YUY2)
            libyuv::YUY2ToI422(frame.y, frame.yStride, y, width, u, chromaWidth, v, chromaWidth, width, height);
        else
            libyuv::UYVYToI422(frame.y, frame.yStride, y, width, u, chromaWidth, v, chromaWidth, width, height);
        source.y = y;
        source.u = u;
        source.v = v;
        source.yStride = width;
        source.uStride = source.vStride = chromaWidth;
        format = GST_VIDEO_FORMAT_Y42B;
    }
    const int chromaWidth = format == GST_VIDEO_FORMAT_Y444 ? pictureWidth : (pictureWidth + 1) / 2;
    const int chromaHeight = source.chromaHalfHeight ? (pictureHeight + 1) / 2 : pictureHeight;
    auto *y = m_scaled.data();
    auto *u = y + static_cast<std::ptrdiff_t>(pictureWidth) * pictureHeight;
    auto *v = u + static_cast<std::ptrdiff_t>(chromaWidth) * chromaHeight;
    Planes scaled = source;
    scaled.y = y;
    scaled.u = u;
    scaled.v = v;
    scaled.yStride = pictureWidth;
    scaled.uStride = scaled.vStride = chromaWidth;
    // libyuv's box filter: the area mean at any ratio (bilinear where it grows).
    constexpr auto filter = libyuv::kFilterBox;
    switch (format) {
    case GST_VIDEO_FORMAT_NV12:
    case GST_VIDEO_FORMAT_NV21: // pairs scale alike whichever comes first
        scaled.uStride = 2 * chromaWidth;
        libyuv::NV12Scale(source.y, source.yStride, source.u, source.uStride, width, height, y, scaled.yStride, u,
                          scaled.uStride, pictureWidth, pictureHeight, filter);
        break;
    case GST_VIDEO_FORMAT_I420:
    case GST_VIDEO_FORMAT_YV12:
        libyuv::I420Scale(source.y, source.yStride, source.u, source.uStride, source.v, source.vStride, width, height,
                          y, scaled.yStride, u, scaled.uStride, v, scaled.vStride, pictureWidth, pictureHeight, filter);
        break;
    case GST_VIDEO_FORMAT_Y42B:
        libyuv::I422Scale(source.y, source.yStride, source.u, source.uStride, source.v, source.vStride, width, height,
                          y, scaled.yStride, u, scaled.uStride, v, scaled.vStride, pictureWidth, pictureHeight, filter);
        break;
    case GST_VIDEO_FORMAT_Y444:
        libyuv::I444Scale(source.y, source.yStride, source.u, source.uStride, source.v, source.vStride, width, height,
                          y, scaled.yStride, u, scaled.uStride, v, scaled.vStride, pictureWidth, pictureHeight, filter);
        break;
    default: return;
    }
    convertRows(format, scaled, pictureWidth, pictureHeight, bgrx, bgrxStride);
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
