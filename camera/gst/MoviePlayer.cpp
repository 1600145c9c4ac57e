#include "camera/MoviePlayer.h"

#include "camera/SampleImage.h"
#include "camera/gst/ErrorText.h"
#include "camera/gst/PipelineWorker.h"

#include <QFileInfo>
#include <QTimer>
#include <QUrl>
#include <chrono>
#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <mutex>

namespace vistrel::camera {
namespace {

// playbin's GstPlayFlags: decode video only. Audio and subtitles are never decoded;
// the virtual camera carries no sound.
constexpr guint kPlayVideoOnly = 1u << 0;

// Hardware decoders (VA-API, V4L2 stateless, NVDEC...) cannot run backwards. Taking
// them out of autoplugging once for the process leaves playbin the software ones.
void preferSoftwareDecoders()
{
    static std::once_flag once;
    std::call_once(once, [] {
        GList *factories = gst_element_factory_list_get_elements(GST_ELEMENT_FACTORY_TYPE_DECODER, GST_RANK_NONE);
        for (GList *item = factories; item; item = item->next) {
            auto *factory = GST_ELEMENT_FACTORY(item->data);
            const gchar *klass = gst_element_factory_get_metadata(factory, GST_ELEMENT_METADATA_KLASS);
            if (klass && g_strrstr(klass, "Hardware"))
                gst_plugin_feature_set_rank(GST_PLUGIN_FEATURE(factory), GST_RANK_NONE);
        }
        gst_plugin_feature_list_free(factories);
    });
}

std::int64_t steadyMilliseconds()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

} // namespace

// --- PlayerItemVideoOutput -------------------------------------------------------

PlayerItemVideoOutput::PlayerItemVideoOutput()
{
    m_sink = gst_element_factory_make("appsink", nullptr);
    if (!m_sink)
        qFatal("PlayerItemVideoOutput: GStreamer has no appsink");
    gst_object_ref_sink(m_sink);
    GstCaps *caps = gst_caps_from_string(kPictureCaps);
    g_object_set(m_sink, "caps", caps, "max-buffers", 1u, "drop", TRUE, "sync", TRUE, "enable-last-sample", FALSE,
                 nullptr);
    gst_caps_unref(caps);
}

PlayerItemVideoOutput::~PlayerItemVideoOutput()
{
    gst_object_unref(m_sink);
}

std::shared_ptr<GstSample> PlayerItemVideoOutput::copyPixelBuffer()
{
    // With one buffer at most and old ones dropped, what is queued is the newest frame.
    GstSample *sample = gst_app_sink_try_pull_sample(GST_APP_SINK(m_sink), 0);
    if (!sample)
        return nullptr;
    return std::shared_ptr<GstSample>(sample, gst_sample_unref);
}

// --- PlayerItem ------------------------------------------------------------------

PlayerItem::PlayerItem(const QString &filePath)
    : m_uri(QUrl::fromLocalFile(QFileInfo(filePath).absoluteFilePath()).toString(QUrl::FullyEncoded))
{}

void PlayerItem::fail(const QString &reason, bool overrides)
{
    {
        std::lock_guard lock(m_reasonMutex);
        if (m_failureReason.isEmpty() || overrides)
            m_failureReason = reason;
    }
    m_status.store(PlayerItemStatus::Failed);
}

QString PlayerItem::failureReason() const
{
    std::lock_guard lock(m_reasonMutex);
    return m_failureReason;
}

void PlayerItem::addOutput(std::shared_ptr<PlayerItemVideoOutput> output)
{
    m_outputs.push_back(std::move(output));
}

void PlayerItem::removeOutput(const std::shared_ptr<PlayerItemVideoOutput> &output)
{
    std::erase(m_outputs, output);
}

// --- MoviePlayer -----------------------------------------------------------------

// Carries bus messages from the streaming threads to the player on the main thread.
// The player detaches itself when it goes away; later messages are dropped.
struct MoviePlayer::BusRelay
{
    std::mutex mutex;
    MoviePlayer *player = nullptr;          // main thread only
    std::shared_ptr<PlayerItem> item;       // read under mutex
    std::atomic<std::uint64_t> pictures{0}; // buffers that reached the video sink
    // Serialises the state changes and the release on the worker's threads: a change
    // still under way is never overtaken by the release, nor made after it.
    std::mutex stateMutex;
    bool released = false;
    int wantedState = GST_STATE_NULL; // under stateMutex
    std::atomic<bool> opened{false};
};

namespace {

void onMainThread(const std::shared_ptr<MoviePlayer::BusRelay> &relay, std::function<void(MoviePlayer &)> action)
{
    std::weak_ptr<MoviePlayer::BusRelay> weak = relay;
    PipelineWorker::shared().postToMainThread([weak, action = std::move(action)] {
        if (auto alive = weak.lock(); alive && alive->player)
            action(*alive->player);
    });
}

void releaseRelayReference(gpointer data)
{
    delete static_cast<std::shared_ptr<MoviePlayer::BusRelay> *>(data);
}

} // namespace

MoviePlayer::MoviePlayer(std::shared_ptr<PlayerItem> item)
    : m_item(std::move(item)), m_relay(std::make_shared<BusRelay>())
{
    preferSoftwareDecoders();
    m_relay->player = this;
    m_relay->item = m_item;

    m_playbin = gst_element_factory_make("playbin", nullptr);
    if (!m_playbin)
        qFatal("MoviePlayer: GStreamer has no playbin");
    gst_object_ref_sink(m_playbin);
    GstElement *videoSink =
        m_item->outputs().empty() ? gst_element_factory_make("fakesink", nullptr) : m_item->outputs().front()->sink();
    GstElement *audioSink = gst_element_factory_make("fakesink", nullptr);
    g_object_set(m_playbin, "uri", m_item->uri().toUtf8().constData(), "flags", kPlayVideoOnly, "video-sink", videoSink,
                 "audio-sink", audioSink, nullptr);

    GstPad *videoPad = gst_element_get_static_pad(videoSink, "sink");
    gst_pad_add_probe(
        videoPad, GST_PAD_PROBE_TYPE_BUFFER,
        [](GstPad *, GstPadProbeInfo *, gpointer data) -> GstPadProbeReturn {
            (*static_cast<std::shared_ptr<BusRelay> *>(data))->pictures.fetch_add(1, std::memory_order_relaxed);
            return GST_PAD_PROBE_OK;
        },
        new std::shared_ptr<BusRelay>(m_relay), releaseRelayReference);
    gst_object_unref(videoPad);

    GstBus *bus = gst_pipeline_get_bus(GST_PIPELINE(m_playbin));
    gst_bus_set_sync_handler(
        bus,
        [](GstBus *, GstMessage *message, gpointer data) -> GstBusSyncReply {
            const auto &relay = *static_cast<std::shared_ptr<BusRelay> *>(data);
            switch (GST_MESSAGE_TYPE(message)) {
            case GST_MESSAGE_ERROR: {
                const QString reason = errorText(message);
                std::lock_guard lock(relay->mutex);
                if (relay->item)
                    relay->item->fail(reason);
                break;
            }
            case GST_MESSAGE_EOS: onMainThread(relay, [](MoviePlayer &player) { player.onEndOfStream(); }); break;
            case GST_MESSAGE_ASYNC_DONE: onMainThread(relay, [](MoviePlayer &player) { player.onPrerolled(); }); break;
            case GST_MESSAGE_DURATION_CHANGED:
                onMainThread(relay, [](MoviePlayer &player) { player.refreshDuration(); });
                break;
            default: break;
            }
            return GST_BUS_DROP;
        },
        new std::shared_ptr<BusRelay>(m_relay), releaseRelayReference);
    gst_object_unref(bus);
}

MoviePlayer::~MoviePlayer()
{
    releasePipeline();
    m_relay->player = nullptr;
}

void MoviePlayer::releasePipeline()
{
    {
        std::lock_guard lock(m_relay->mutex);
        m_relay->item.reset();
    }
    if (m_playbin) {
        PipelineWorker::shared().run([relay = m_relay, pipeline = m_playbin] {
            std::lock_guard lock(relay->stateMutex);
            relay->released = true;
            gst_element_set_state(pipeline, GST_STATE_NULL);
            gst_object_unref(pipeline);
        });
        m_playbin = nullptr;
    }
}

void MoviePlayer::changeState(int state)
{
    {
        std::lock_guard lock(m_relay->stateMutex);
        m_relay->wantedState = state;
    }
    GstElement *pipeline = GST_ELEMENT(gst_object_ref(m_playbin));
    // Each job makes the newest wanted state, so the order in which they run does not
    // matter.
    PipelineWorker::shared().run([relay = m_relay, pipeline] {
        {
            std::lock_guard stateLock(relay->stateMutex);
            if (!relay->released) {
                const auto state = static_cast<GstState>(relay->wantedState);
                if (gst_element_set_state(pipeline, state) == GST_STATE_CHANGE_FAILURE) {
                    std::lock_guard lock(relay->mutex);
                    if (relay->item)
                        relay->item->fail(QStringLiteral("The movie cannot be started."));
                }
                relay->opened.store(true);
            }
        }
        gst_object_unref(pipeline);
    });
}

void MoviePlayer::play()
{
    if (!m_playbin)
        return;
    changeState(GST_STATE_PLAYING);
    m_rate = m_direction;
    if (!m_prerolled && !m_openTimer) {
        // decodebin drops an error that a demuxer posts while it is being plugged in (a
        // truncated MP4 does this now and then); such a pipeline never prerolls and
        // never says why.
        m_openTimer = std::make_unique<QTimer>();
        m_openTimer->setSingleShot(true);
        QObject::connect(m_openTimer.get(), &QTimer::timeout, [this] {
            if (m_item && !m_prerolled)
                m_item->fail(QStringLiteral("It did not start within %1 s.").arg(m_openTimeoutMs / 1000.0));
        });
        m_openTimer->start(m_openTimeoutMs);
    }
}

void MoviePlayer::setOpenTimeout(int milliseconds)
{
    m_openTimeoutMs = milliseconds;
    if (m_openTimer && m_openTimer->isActive())
        m_openTimer->start(milliseconds);
}

void MoviePlayer::pause()
{
    if (m_playbin)
        changeState(GST_STATE_PAUSED);
    m_rate = 0.0;
}

bool MoviePlayer::isOpened() const
{
    return m_relay->opened.load();
}

void MoviePlayer::seekToZero()
{
    // A seek takes the pipeline's state lock, which the opening holds while it waits.
    if (m_playbin && isOpened()
        && gst_element_seek_simple(m_playbin, GST_FORMAT_TIME,
                                   GstSeekFlags(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_ACCURATE), 0)) {
        m_direction = 1.0;
        m_atEnd = false;
        m_turnedAtMs = -1;
    }
}

void MoviePlayer::replaceCurrentItem(std::nullptr_t)
{
    releasePipeline();
    m_item.reset();
    m_rate = 0.0;
}

bool MoviePlayer::sitsAtEnd() const
{
    return m_atEnd && m_relay->pictures.load(std::memory_order_relaxed) == m_picturesAtEnd;
}

double MoviePlayer::rate() const
{
    if (m_turnedAtMs >= 0 && sitsAtEnd() && steadyMilliseconds() - m_turnedAtMs > m_stallTimeoutMs)
        return 0.0;
    return m_rate;
}

std::int64_t MoviePlayer::currentTime() const
{
    if (sitsAtEnd())
        return m_endPosition;
    gint64 position = 0;
    if (!m_playbin || !gst_element_query_position(m_playbin, GST_FORMAT_TIME, &position) || position < 0)
        return 0;
    return position;
}

void MoviePlayer::setRate(double rate)
{
    if (!m_playbin || !isOpened() || rate == 0.0) {
        m_rate = 0.0;
        return;
    }
    const auto flags = GstSeekFlags(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_ACCURATE);
    gboolean accepted = FALSE;
    if (rate > 0) {
        accepted = gst_element_seek(m_playbin, rate, GST_FORMAT_TIME, flags, GST_SEEK_TYPE_SET, currentTime(),
                                    GST_SEEK_TYPE_NONE, GST_CLOCK_TIME_NONE);
    } else {
        // Backwards runs from the stop position down to the start. Stopping at the
        // exact duration keeps the last frame on every demuxer measured.
        refreshDuration();
        const std::int64_t end = m_item && m_item->duration() > 0 ? m_item->duration() : currentTime();
        accepted =
            gst_element_seek(m_playbin, rate, GST_FORMAT_TIME, flags, GST_SEEK_TYPE_SET, 0, GST_SEEK_TYPE_SET, end);
    }
    if (!accepted) {
        // The player is left where it stopped; a stalled end shows as rate 0.
        m_rate = 0.0;
        return;
    }
    m_rate = rate;
    m_direction = rate > 0 ? 1.0 : -1.0;
    if (m_atEnd)
        m_turnedAtMs = steadyMilliseconds();
}

void MoviePlayer::setDidPlayToEndHandler(std::function<void()> handler)
{
    m_didPlayToEnd = std::move(handler);
}

void MoviePlayer::onEndOfStream()
{
    refreshDuration();
    m_atEnd = true;
    m_turnedAtMs = -1;
    m_picturesAtEnd = m_relay->pictures.load(std::memory_order_relaxed);
    if (m_item && m_direction > 0 && m_item->duration() < 0) {
        // A stream that never told its length (a live recording) ends where it ended.
        gint64 position = 0;
        if (m_playbin && gst_element_query_position(m_playbin, GST_FORMAT_TIME, &position) && position > 0)
            m_item->setDuration(position);
    }
    m_endPosition = m_direction > 0 ? std::max<std::int64_t>(m_item ? m_item->duration() : 0, 0) : 0;
    if (m_didPlayToEnd)
        m_didPlayToEnd();
}

void MoviePlayer::onPrerolled()
{
    m_prerolled = true;
    if (m_openTimer)
        m_openTimer->stop();
    refreshDuration();
    gint videoTracks = 0;
    if (m_item && m_playbin) {
        g_object_get(m_playbin, "n-video", &videoTracks, nullptr);
        // Such a file either prerolls without pictures and ends, or stops with a stream
        // error that does not say why; this says why.
        if (videoTracks == 0)
            m_item->fail(QStringLiteral("The file has no video track."), true);
    }
}

void MoviePlayer::refreshDuration()
{
    gint64 duration = -1;
    if (m_item && m_playbin && gst_element_query_duration(m_playbin, GST_FORMAT_TIME, &duration) && duration > 0) {
        m_item->setDuration(duration);
        if (m_item->status() == PlayerItemStatus::Unknown)
            m_item->setStatus(PlayerItemStatus::ReadyToPlay);
    }
}

} // namespace vistrel::camera
