#include "camera/CaptureSession.h"

#include "camera/SampleImage.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <gst/video/gstvideopool.h>
#include <gst/video/video.h>
#include <libyuv/convert_argb.h>
#include <libyuv/planar_functions.h>
#include <libyuv/scale_argb.h>
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace vistrel::camera {

namespace {
// Caps features (ANY) must not appear here: PipeWire then never links the stream.
constexpr const char *kCameraStreamCaps = "video/x-raw; image/jpeg; video/x-h264";

// What the output's appsink takes: the picture format itself, or one of the YUV
// layouts cameras and decoders deliver, which PictureConverter turns into the picture
// format in one libyuv pass (several times cheaper than videoconvert's generic path).
// Any other format is converted by videoconvert on the way, to the nearest of these.
constexpr const char *kIntakeCaps =
    "video/x-raw,format={ BGRx, YUY2, UYVY, NV12, NV21, I420, YV12, Y42B, Y444 }";

constexpr guint kPicturesInFlight = 3;

// Turns each decoded camera frame into a picture-format (BGRx) sample. Buffers come
// from a pool and go back to it once the last picture made of them is released, so a
// frame costs no pixel allocation. Used by one streaming thread at a time.
//
// A frame larger than the largest picture wanted is shrunk as it is converted, by
// nearest pixels: only the rows the picture keeps are converted, each into a one-row
// buffer that stays in cache, from which the kept columns are picked. The large frame
// is never written out whole, and nearest pixels are what the picture's later stretch
// would have picked anyway.
//
// BT.601 (what USB cameras and JPEG use) goes through libyuv. libyuv's BT.709 and
// BT.2020 tables clip strong blues by up to 16 levels, so frames in those matrices go
// through GStreamer's own converter instead: slower, but true to the camera.
class PictureConverter
{
public:
    PictureConverter() = default;
    ~PictureConverter() { reset(); }
    PictureConverter(const PictureConverter &) = delete;
    PictureConverter &operator=(const PictureConverter &) = delete;

    // A new reference to a sample in the picture format: the sample itself when it is
    // in that format already (or in one this cannot convert), else a converted copy.
    // Null (the frame is dropped) while every picture buffer is still held.
    // `largest` (when not empty) bounds the picture's width and height.
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

    bool prepare(GstCaps *caps, QSize largest);
    void convert(const GstVideoFrame &in, GstVideoFrame &out);
    void convertRows(const Planes &in, int width, int rows, std::uint8_t *bgrx, int bgrxStride);
    void reset();

    GstCaps *m_inputCaps = nullptr;
    QSize m_largest;
    bool m_shrinking = false;
    std::vector<std::uint8_t> m_row; // one converted row at the camera's width
    bool m_passthrough = true;
    GstVideoInfo m_in{};
    GstVideoInfo m_picture{};
    GstCaps *m_pictureCaps = nullptr;
    GstBufferPool *m_pool = nullptr;
    const libyuv::YuvConstants *m_matrix = nullptr;
    GstVideoConverter *m_exactConverter = nullptr; // for the matrices libyuv approximates
    std::vector<std::uint8_t> m_planes; // full-range packed frames, split into 4:2:2 planes
};

// libyuv's table for a BT.601 frame, or null for the other matrices.
const libyuv::YuvConstants *libyuvMatrixFor(const GstVideoColorimetry &colorimetry)
{
    switch (colorimetry.matrix) {
    case GST_VIDEO_COLOR_MATRIX_BT601:
    case GST_VIDEO_COLOR_MATRIX_UNKNOWN:
        return colorimetry.range == GST_VIDEO_COLOR_RANGE_0_255 ? &libyuv::kYuvJPEGConstants
                                                                : &libyuv::kYuvI601Constants;
    default:
        return nullptr;
    }
}

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
    case GST_VIDEO_FORMAT_Y444:
        break;
    default:
        return false; // BGRx passes as it is
    }

    const int width = GST_VIDEO_INFO_WIDTH(&m_in);
    const int height = GST_VIDEO_INFO_HEIGHT(&m_in);
    const int pictureWidth = largest.isEmpty() ? width : std::min(width, largest.width());
    const int pictureHeight = largest.isEmpty() ? height : std::min(height, largest.height());
    m_shrinking = pictureWidth != width || pictureHeight != height;
    m_row.resize(m_shrinking ? static_cast<std::size_t>(width) * 4 : 0);

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
        // GStreamer's converter shrinks as it converts; by nearest pixels, as below.
        GstStructure *options = gst_structure_new("options", GST_VIDEO_CONVERTER_OPT_RESAMPLER_METHOD,
                                                  GST_TYPE_VIDEO_RESAMPLER_METHOD, GST_VIDEO_RESAMPLER_METHOD_NEAREST,
                                                  nullptr);
        m_exactConverter = gst_video_converter_new(&m_in, &picture, options);
        if (!m_exactConverter)
            return false;
    }

    m_pool = gst_video_buffer_pool_new();
    GstStructure *config = gst_buffer_pool_get_config(m_pool);
    // The current picture, the newest one on its way to the main thread and the one
    // being made. When the main thread lags and all are held, the frame is dropped
    // (as a late frame is) rather than the pool growing: a 1080p picture is 8 MB.
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
    case GST_VIDEO_FORMAT_YV12:
        planes.chromaHalfHeight = true;
        break;
    case GST_VIDEO_FORMAT_NV21:
        // The interleaved plane starts with V: its first byte, not U's, is the row start.
        planes.chromaHalfHeight = true;
        planes.y = static_cast<const std::uint8_t *>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
        planes.yStride = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0);
        planes.u = static_cast<const std::uint8_t *>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 1));
        planes.uStride = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 1);
        return planes;
    default:
        break;
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
    const Planes planes = Planes::of(in);
    if (!m_shrinking) {
        convertRows(planes, width, height, bgrx, bgrxStride);
        return;
    }
    const int pictureWidth = GST_VIDEO_FRAME_WIDTH(&out);
    const int pictureHeight = GST_VIDEO_FRAME_HEIGHT(&out);
    for (int row = 0; row < pictureHeight; ++row) {
        // The source row nearest to this row's centre.
        const int sourceRow = static_cast<int>((2 * static_cast<std::int64_t>(row) + 1) * height / (2 * pictureHeight));
        std::uint8_t *pictureRow = bgrx + static_cast<std::ptrdiff_t>(row) * bgrxStride;
        if (pictureWidth == width) {
            convertRows(planes.fromRow(sourceRow), width, 1, pictureRow, bgrxStride);
            continue;
        }
        convertRows(planes.fromRow(sourceRow), width, 1, m_row.data(), width * 4);
        libyuv::ARGBScale(m_row.data(), width * 4, width, 1, pictureRow, bgrxStride, pictureWidth, 1,
                          libyuv::kFilterNone);
    }
}

void PictureConverter::convertRows(const Planes &in, int width, int height, std::uint8_t *bgrx, int bgrxStride)
{
    const auto *y = in.y;
    const int yStride = in.yStride;
    const auto *u = in.u;
    const int uStride = in.uStride;
    const auto *v = in.v;
    const int vStride = in.vStride;
    const auto *packed = in.y;
    const int packedStride = in.yStride;
    // libyuv's "ARGB" is B,G,R,A in memory: BGRx with an opaque fourth byte.
    switch (GST_VIDEO_INFO_FORMAT(&m_in)) {
    case GST_VIDEO_FORMAT_I420:
    case GST_VIDEO_FORMAT_YV12: // the same planes in another order; the component pointers sort that out
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
        // frame is split into planes first.
        const bool yuy2 = GST_VIDEO_INFO_FORMAT(&m_in) == GST_VIDEO_FORMAT_YUY2;
        if (m_matrix == &libyuv::kYuvI601Constants) {
            if (yuy2)
                libyuv::YUY2ToARGB(packed, packedStride, bgrx, bgrxStride, width, height);
            else
                libyuv::UYVYToARGB(packed, packedStride, bgrx, bgrxStride, width, height);
            break;
        }
        const int chromaWidth = (width + 1) / 2;
        m_planes.resize(static_cast<std::size_t>(width + 2 * chromaWidth) * static_cast<std::size_t>(height)); // once
        std::uint8_t *planeY = m_planes.data();
        std::uint8_t *planeU = planeY + static_cast<std::size_t>(width) * height;
        std::uint8_t *planeV = planeU + static_cast<std::size_t>(chromaWidth) * height;
        if (yuy2)
            libyuv::YUY2ToI422(packed, packedStride, planeY, width, planeU, chromaWidth, planeV, chromaWidth, width,
                               height);
        else
            libyuv::UYVYToI422(packed, packedStride, planeY, width, planeU, chromaWidth, planeV, chromaWidth, width,
                               height);
        libyuv::I422ToARGBMatrix(planeY, width, planeU, chromaWidth, planeV, chromaWidth, bgrx, bgrxStride, m_matrix,
                                 width, height);
        break;
    }
    default:
        break;
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

} // namespace

// --- CaptureDeviceInput ----------------------------------------------------------

CaptureDeviceInput::CaptureDeviceInput(GstElement *source) : m_source(source) {}

CaptureDeviceInput::~CaptureDeviceInput() { gst_object_unref(m_source); }

std::shared_ptr<CaptureDeviceInput> CaptureDeviceInput::create(const CameraDevice &device, QString *error)
{
    GstElement *source = device.device ? gst_device_create_element(device.device.get(), nullptr) : nullptr;
    if (!source) {
        if (error)
            *error = QStringLiteral("The device \"%1\" cannot provide a video source.").arg(device.localizedName);
        return nullptr;
    }
    gst_object_ref_sink(source);
    return std::shared_ptr<CaptureDeviceInput>(new CaptureDeviceInput(source));
}

// --- VideoDataOutput -------------------------------------------------------------

// Shared between the output and the appsink's callback, so a callback that is already
// running when the output goes away still finds a valid (and then empty) slot.
struct VideoDataOutput::DelegateSlot
{
    std::mutex mutex;
    SampleDelegate delegate;
    std::function<bool()> wanted;
    QSize largestPicture;
    PictureConverter converter; // the streaming thread's only
};

namespace {

GstFlowReturn deliverSample(GstAppSink *sink, gpointer data)
{
    auto &slot = **static_cast<std::shared_ptr<VideoDataOutput::DelegateSlot> *>(data);
    GstSample *sample = gst_app_sink_pull_sample(sink);
    if (!sample)
        return GST_FLOW_EOS;
    bool wanted;
    QSize largest;
    {
        std::lock_guard lock(slot.mutex);
        wanted = slot.delegate && (!slot.wanted || slot.wanted());
        largest = slot.largestPicture;
    }
    // Converted outside the lock, so replacing the delegate never waits for a frame.
    GstSample *picture = wanted ? slot.converter.toPicture(sample, largest) : nullptr;
    gst_sample_unref(sample);
    if (picture) {
        std::lock_guard lock(slot.mutex);
        if (slot.delegate)
            slot.delegate(picture);
    }
    if (picture)
        gst_sample_unref(picture);
    return GST_FLOW_OK;
}

void releaseSlotReference(gpointer data) { delete static_cast<std::shared_ptr<VideoDataOutput::DelegateSlot> *>(data); }

void linkDecodedPad(GstElement *, GstPad *pad, gpointer converter)
{
    GstPad *sinkPad = gst_element_get_static_pad(GST_ELEMENT(converter), "sink");
    if (!gst_pad_is_linked(sinkPad))
        gst_pad_link(pad, sinkPad);
    gst_object_unref(sinkPad);
}

GstElement *makeElement(const char *factory)
{
    GstElement *element = gst_element_factory_make(factory, nullptr);
    // Only a broken GStreamer installation gets here.
    if (!element)
        qFatal("VideoDataOutput: GStreamer has no %s element", factory);
    return element;
}

} // namespace

VideoDataOutput::VideoDataOutput() : m_slot(std::make_shared<DelegateSlot>())
{
    m_bin = gst_bin_new("video-data-output");
    gst_object_ref_sink(m_bin);
    GstElement *decoder = makeElement("decodebin");
    GstElement *converter = makeElement("videoconvert");
    GstElement *sink = makeElement("appsink");
    GstCaps *caps = gst_caps_from_string(kIntakeCaps);
    g_object_set(sink, "caps", caps, "max-buffers", 1u, "drop", TRUE, "sync", FALSE, "enable-last-sample", FALSE,
                 nullptr);
    gst_caps_unref(caps);
    gst_bin_add_many(GST_BIN(m_bin), decoder, converter, sink, nullptr);
    gst_element_link(converter, sink);
    // decodebin shows its decoded pad once it knows what the camera sends.
    g_signal_connect(decoder, "pad-added", G_CALLBACK(linkDecodedPad), converter);
    GstPad *decoderSink = gst_element_get_static_pad(decoder, "sink");
    gst_element_add_pad(m_bin, gst_ghost_pad_new("sink", decoderSink));
    gst_object_unref(decoderSink);

    GstAppSinkCallbacks callbacks{};
    callbacks.new_sample = deliverSample;
    gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, new std::shared_ptr<DelegateSlot>(m_slot),
                               releaseSlotReference);
}

VideoDataOutput::~VideoDataOutput()
{
    setSampleBufferDelegate(nullptr);
    setFrameFilter(nullptr);
    gst_object_unref(m_bin);
}

void VideoDataOutput::setSampleBufferDelegate(SampleDelegate delegate)
{
    std::lock_guard lock(m_slot->mutex);
    m_slot->delegate = std::move(delegate);
}

void VideoDataOutput::setFrameFilter(std::function<bool()> wanted)
{
    std::lock_guard lock(m_slot->mutex);
    m_slot->wanted = std::move(wanted);
}

void VideoDataOutput::setLargestPictureSize(QSize size)
{
    std::lock_guard lock(m_slot->mutex);
    m_slot->largestPicture = size;
}

// --- CaptureSession --------------------------------------------------------------

// Receives the pipeline's bus messages on whatever thread posts them. Before the
// session runs it keeps the first error for startRunning; afterwards it forwards
// errors to the main thread. Nothing is left queued on the bus.
struct CaptureSession::BusRelay
{
    std::mutex mutex;
    QString firstError;
    bool forwarding = false;
    std::function<void(const QString &)> handler;
    CaptureSession *session = nullptr; // main thread only
    // Serialises the start and the release of the pipeline, so that a start still
    // under way is never overtaken by the release.
    std::mutex stateMutex;
    bool released = false;
};

namespace {

QString takeErrorText(GstMessage *message)
{
    GError *error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    QString text = error ? QString::fromUtf8(error->message) : QStringLiteral("unknown error");
    g_clear_error(&error);
    return text;
}

GstBusSyncReply relayBusMessage(GstBus *, GstMessage *message, gpointer data)
{
    if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_ERROR)
        return GST_BUS_DROP;
    const auto &relay = *static_cast<std::shared_ptr<CaptureSession::BusRelay> *>(data);
    std::weak_ptr<CaptureSession::BusRelay> weakRelay = relay;
    const QString text = takeErrorText(message);
    std::lock_guard lock(relay->mutex);
    if (!relay->forwarding) {
        if (relay->firstError.isEmpty())
            relay->firstError = text;
        return GST_BUS_DROP;
    }
    relay->forwarding = false; // one report per session: the pipeline is dead after an error
    QMetaObject::invokeMethod(
        QCoreApplication::instance(),
        [weakRelay, text] {
            auto alive = weakRelay.lock();
            if (!alive || !alive->session)
                return;
            std::function<void(const QString &)> handler;
            {
                std::lock_guard lock(alive->mutex);
                handler = alive->handler;
            }
            if (handler)
                handler(text);
        },
        Qt::QueuedConnection);
    return GST_BUS_DROP;
}

void releaseRelayReference(gpointer data) { delete static_cast<std::shared_ptr<CaptureSession::BusRelay> *>(data); }

} // namespace

CaptureSession::CaptureSession() : m_relay(std::make_shared<BusRelay>())
{
    m_relay->session = this;
    m_pipeline = gst_pipeline_new("capture-session");
    gst_object_ref_sink(m_pipeline);
    GstBus *bus = gst_pipeline_get_bus(GST_PIPELINE(m_pipeline));
    gst_bus_set_sync_handler(bus, relayBusMessage, new std::shared_ptr<BusRelay>(m_relay), releaseRelayReference);
    gst_object_unref(bus);
}

namespace {

// A V4L2 capture node streams to one client at a time: a new session on the same
// camera must not start before the session it replaces has let go of the device.
// Releases still under way are counted; a start waits for them, but not for ever, so
// one stuck pipeline cannot hold up the next.
class PendingReleases
{
public:
    static PendingReleases &instance()
    {
        static PendingReleases releases;
        return releases;
    }
    void begin()
    {
        std::lock_guard lock(m_mutex);
        ++m_pending;
    }
    void end()
    {
        {
            std::lock_guard lock(m_mutex);
            --m_pending;
        }
        m_done.notify_all();
    }
    void waitForAll(std::chrono::milliseconds limit)
    {
        std::unique_lock lock(m_mutex);
        m_done.wait_for(lock, limit, [this] { return m_pending == 0; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_done;
    int m_pending = 0;
};

constexpr std::chrono::seconds kReleaseWaitLimit{3};

} // namespace

CaptureSession::~CaptureSession()
{
    m_relay->session = nullptr;
    {
        std::lock_guard lock(m_relay->mutex);
        m_relay->forwarding = false;
        m_relay->handler = nullptr;
    }
    PendingReleases::instance().begin();
    std::thread([relay = m_relay, pipeline = m_pipeline] {
        {
            std::lock_guard lock(relay->stateMutex);
            relay->released = true;
            gst_element_set_state(pipeline, GST_STATE_NULL);
            gst_object_unref(pipeline);
        }
        PendingReleases::instance().end();
    }).detach();
}

bool CaptureSession::canAddInput(const CaptureDeviceInput &input) const
{
    return !m_input && !GST_OBJECT_PARENT(input.element());
}

void CaptureSession::addInput(std::shared_ptr<CaptureDeviceInput> input)
{
    m_input = std::move(input);
    gst_bin_add(GST_BIN(m_pipeline), m_input->element());
    linkIfComplete();
}

bool CaptureSession::canAddOutput(const VideoDataOutput &output) const
{
    return !m_output && !GST_OBJECT_PARENT(output.element());
}

void CaptureSession::addOutput(std::shared_ptr<VideoDataOutput> output)
{
    m_output = std::move(output);
    gst_bin_add(GST_BIN(m_pipeline), m_output->element());
    linkIfComplete();
}

void CaptureSession::linkIfComplete()
{
    // Only the kind of stream is constrained (video, raw or compressed), never its size,
    // format or rate: some sources (PipeWire) are linked only once a reader says it
    // wants video.
    if (m_input && m_output) {
        GstCaps *video = gst_caps_from_string(kCameraStreamCaps);
        gst_element_link_filtered(m_input->element(), m_output->element(), video);
        gst_caps_unref(video);
    }
}

void CaptureSession::startRunning(StartHandler done)
{
    GstElement *pipeline = GST_ELEMENT(gst_object_ref(m_pipeline));
    std::thread([relay = m_relay, pipeline, done = std::move(done)] {
        bool running = false;
        QString error;
        PendingReleases::instance().waitForAll(kReleaseWaitLimit);
        {
            std::lock_guard stateLock(relay->stateMutex);
            if (!relay->released) {
                const GstStateChangeReturn result = gst_element_set_state(pipeline, GST_STATE_PLAYING);
                std::lock_guard lock(relay->mutex);
                running = result != GST_STATE_CHANGE_FAILURE && relay->firstError.isEmpty();
                if (!running)
                    error = relay->firstError.isEmpty() ? QStringLiteral("the capture pipeline cannot start")
                                                        : relay->firstError;
                relay->forwarding = running;
            }
        }
        gst_object_unref(pipeline);
        std::weak_ptr<BusRelay> weak = relay;
        QMetaObject::invokeMethod(
            QCoreApplication::instance(),
            [weak, running, error, done] {
                auto alive = weak.lock();
                if (!alive || !alive->session)
                    return;
                alive->session->m_running = running;
                if (done)
                    done(running, error);
            },
            Qt::QueuedConnection);
    }).detach();
}

void CaptureSession::setRuntimeErrorHandler(std::function<void(const QString &)> handler)
{
    std::lock_guard lock(m_relay->mutex);
    m_relay->handler = std::move(handler);
}

} // namespace vistrel::camera
