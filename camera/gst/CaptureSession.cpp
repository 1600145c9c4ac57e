#include "camera/CaptureSession.h"

#include "camera/SampleImage.h"
#include "camera/gst/ErrorText.h"
#include "camera/gst/PictureConverter.h"
#include "camera/gst/PipelineWorker.h"

#include <algorithm>
#include <chrono>
#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <gst/video/gstvideopool.h>
#include <gst/video/video.h>
#include <mutex>
#include <vector>

namespace vistrel::camera {

namespace {
// Caps features (ANY) must not appear here: PipeWire then never links the stream.
constexpr const char *kCameraStreamCaps = "video/x-raw; image/jpeg; video/x-h264";

// What the output's appsink takes: the picture format itself, or one of the YUV
// layouts cameras and decoders deliver, which PictureConverter turns into the picture
// format in one libyuv pass (several times cheaper than videoconvert's generic path).
// Any other format is converted by videoconvert on the way, to the nearest of these.
constexpr const char *kIntakeCaps = "video/x-raw,format={ BGRx, YUY2, UYVY, NV12, NV21, I420, YV12, Y42B, Y444 }";

} // namespace

// --- CaptureDeviceInput ----------------------------------------------------------

CaptureDeviceInput::CaptureDeviceInput(GstElement *source) : m_source(source) {}

CaptureDeviceInput::~CaptureDeviceInput()
{
    gst_object_unref(m_source);
}

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

void releaseSlotReference(gpointer data)
{
    delete static_cast<std::shared_ptr<VideoDataOutput::DelegateSlot> *>(data);
}

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

GstBusSyncReply relayBusMessage(GstBus *, GstMessage *message, gpointer data)
{
    if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_ERROR)
        return GST_BUS_DROP;
    const auto &relay = *static_cast<std::shared_ptr<CaptureSession::BusRelay> *>(data);
    std::weak_ptr<CaptureSession::BusRelay> weakRelay = relay;
    const QString text = errorText(message);
    std::lock_guard lock(relay->mutex);
    if (!relay->forwarding) {
        if (relay->firstError.isEmpty())
            relay->firstError = text;
        return GST_BUS_DROP;
    }
    relay->forwarding = false; // one report per session: the pipeline is dead after an error
    PipelineWorker::shared().postToMainThread([weakRelay, text] {
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
    });
    return GST_BUS_DROP;
}

void releaseRelayReference(gpointer data)
{
    delete static_cast<std::shared_ptr<CaptureSession::BusRelay> *>(data);
}

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
// camera must not start before the session it replaces has let go of the device. A
// start waits for the releases under way, but not for ever, so one stuck pipeline
// cannot hold up the next.
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
    PipelineWorker::shared().runRelease([relay = m_relay, pipeline = m_pipeline] {
        std::lock_guard lock(relay->stateMutex);
        relay->released = true;
        gst_element_set_state(pipeline, GST_STATE_NULL);
        gst_object_unref(pipeline);
    });
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
    PipelineWorker &worker = PipelineWorker::shared();
    worker.run([&worker, relay = m_relay, pipeline, done = std::move(done)] {
        bool running = false;
        QString error;
        worker.waitForReleases(kReleaseWaitLimit);
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
        worker.postToMainThread([weak, running, error, done] {
            auto alive = weak.lock();
            if (!alive || !alive->session)
                return;
            alive->session->m_running = running;
            if (done)
                done(running, error);
        });
    });
}

void CaptureSession::setRuntimeErrorHandler(std::function<void(const QString &)> handler)
{
    std::lock_guard lock(m_relay->mutex);
    m_relay->handler = std::move(handler);
}

} // namespace vistrel::camera
