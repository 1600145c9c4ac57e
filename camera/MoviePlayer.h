#pragma once
#include <QString>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

class QTimer;
typedef struct _GstElement GstElement;
typedef struct _GstSample GstSample;

namespace vistrel::camera {

// Decoded movie frames for the main thread: an appsink that converts to the picture
// format (see SampleImage.h), keeps only the newest frame and is paced by the movie's
// clock.
class PlayerItemVideoOutput
{
public:
    PlayerItemVideoOutput();
    ~PlayerItemVideoOutput();
    PlayerItemVideoOutput(const PlayerItemVideoOutput &) = delete;
    PlayerItemVideoOutput &operator=(const PlayerItemVideoOutput &) = delete;

    // The newest decoded frame not yet taken, or nothing. Never waits.
    std::shared_ptr<GstSample> copyPixelBuffer();
    GstElement *sink() const { return m_sink; }

private:
    GstElement *m_sink = nullptr;
};

enum class PlayerItemStatus { Unknown, ReadyToPlay, Failed };

// One movie file to be played, with the outputs that receive its pictures.
class PlayerItem
{
public:
    explicit PlayerItem(const QString &filePath);

    const QString &uri() const { return m_uri; }
    PlayerItemStatus status() const { return m_status.load(); }
    // The movie's length in nanoseconds, or -1 while it is not known.
    std::int64_t duration() const { return m_duration.load(); }

    void addOutput(std::shared_ptr<PlayerItemVideoOutput> output);
    void removeOutput(const std::shared_ptr<PlayerItemVideoOutput> &output);
    const std::vector<std::shared_ptr<PlayerItemVideoOutput>> &outputs() const { return m_outputs; }

    // Set by the player that plays the item (any thread).
    void setStatus(PlayerItemStatus status) { m_status.store(status); }
    void setDuration(std::int64_t nanoseconds) { m_duration.store(nanoseconds); }
    // Marks the item failed with GStreamer's reason (any thread). The first reason
    // stays, unless `overrides`: a later, clearer one that explains the first.
    void fail(const QString &reason, bool overrides = false);
    // Why the item failed, or an empty string.
    QString failureReason() const;

private:
    QString m_uri;
    mutable std::mutex m_reasonMutex;
    QString m_failureReason;
    std::atomic<PlayerItemStatus> m_status{PlayerItemStatus::Unknown};
    std::atomic<std::int64_t> m_duration{-1};
    std::vector<std::shared_ptr<PlayerItemVideoOutput>> m_outputs;
};

// Plays one item with a GStreamer playbin: video to the item's output (software
// decoders only, so that every decoder can run backwards), audio discarded. An error
// on the bus, or a file without a video track, marks the item failed; the end of the
// stream is reported on the main thread.
//
// Threads: everything here is called on the main thread, and the end handler runs
// there. State changes (play, pause, the release) are jobs of the application's
// PipelineWorker, since opening a file can wait on a slow disk or a pipe for ever; the
// seeks wait for the opening to be done and are refused until then. Bus messages are
// read on GStreamer's streaming threads and handed to the main thread.
class MoviePlayer
{
public:
    explicit MoviePlayer(std::shared_ptr<PlayerItem> item);
    ~MoviePlayer();
    MoviePlayer(const MoviePlayer &) = delete;
    MoviePlayer &operator=(const MoviePlayer &) = delete;

    // Ask for the state; the change is made on a worker thread. A state change that
    // fails marks the item failed.
    void play();
    void pause();
    // Whether the first state change has been made (the file is open, or failed).
    bool isOpened() const;
    // A flushing, accurate seek to the start at normal speed; nothing before the file
    // is open.
    void seekToZero();

    const std::shared_ptr<PlayerItem> &currentItem() const { return m_item; }
    // Only "no item" is supported: it stops the pipeline and forgets the item.
    void replaceCurrentItem(std::nullptr_t);

    // The playback position in nanoseconds: the item's end (or start, backwards) from
    // the moment the stream ended there until a picture flows again, 0 when unknown.
    std::int64_t currentTime() const;
    // 0 while paused, when the last change of direction was refused, and when the
    // player has sat at an end without a picture for longer than the stall timeout
    // after turning (some demuxers accept a backwards seek and then send nothing).
    double rate() const;
    void setStallTimeout(int milliseconds) { m_stallTimeoutMs = milliseconds; }
    // A file that has shown no first picture this long after play() is marked failed
    // (setting it restarts a wait under way).
    void setOpenTimeout(int milliseconds);
    // Changes speed and direction by a flushing, accurate seek: forwards from the
    // current position, backwards from the item's end (or the current position
    // when the end is not known) towards 0. Refused (rate 0) before the file is open.
    void setRate(double rate);

    // Called on the main thread each time the stream reaches its end in the current
    // direction.
    void setDidPlayToEndHandler(std::function<void()> handler);

    struct BusRelay;

private:
    void releasePipeline();
    void changeState(int state);
    void onEndOfStream();
    void onPrerolled();
    void refreshDuration();

    std::shared_ptr<PlayerItem> m_item;
    GstElement *m_playbin = nullptr;
    std::shared_ptr<BusRelay> m_relay;
    std::function<void()> m_didPlayToEnd;
    bool sitsAtEnd() const;

    double m_rate = 0.0;
    double m_direction = 1.0;
    // Set when the stream ends; cleared by the first picture after that.
    bool m_atEnd = false;
    std::int64_t m_endPosition = 0;
    std::uint64_t m_picturesAtEnd = 0;
    std::int64_t m_turnedAtMs = -1;
    // Long enough for the slowest backwards start measured (a 1080p H.264 file with a
    // single keyframe shows its first backwards picture after about 5 s).
    int m_stallTimeoutMs = 8000;
    // Prerolled: the first picture reached the sink (or the file has no video).
    bool m_prerolled = false;
    std::unique_ptr<QTimer> m_openTimer;
    // As long as the stall timeout: a file whose first picture takes longer is of no
    // use as a camera.
    int m_openTimeoutMs = 8000;
};

} // namespace vistrel::camera
