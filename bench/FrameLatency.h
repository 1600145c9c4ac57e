#pragma once
#include <QSize>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

typedef struct _GstElement GstElement;
typedef struct _GstPad GstPad;

namespace vistrel::bench {

// Latencies counted in 0.1 ms steps up to 2 s (longer ones in the last step), so a run
// of any length keeps a fixed few bytes per step and adding one allocates nothing.
class LatencyHistogram
{
public:
    LatencyHistogram();
    void add(std::chrono::nanoseconds latency);
    void clear();

    int count() const { return m_count; }
    // In milliseconds; 0 when empty. A quantile is the upper edge of its step.
    double quantileMs(double q) const;
    double maxMs() const { return static_cast<double>(m_max.count()) / 1e6; }

private:
    std::vector<std::uint32_t> m_steps;
    int m_count = 0;
    std::chrono::nanoseconds m_max{0};
};

// The time from a camera buffer's arrival to the write of its picture into the device.
//
// The synthetic camera's frames are numbered where videotestsrc hands them on (its own
// thread, before the camera's queue): the number is drawn into the picture as 20 flat
// blocks of 32x32 pixels near the top-left corner, black or white (16 bits of number and
// 4 check bits), and its arrival time goes into a ring indexed by the number. Scaling,
// nearest or filtered, leaves the blocks' centres clean at any output size, so the
// writer reads them back from the 1280x720 YUYV frame it writes and looks the arrival up.
// A picture written again (the tick repeats it until a newer one comes) counts once, at
// its first write; numbers skipped between two written pictures are frames never written.
class FrameLatency
{
public:
    explicit FrameLatency(QSize cameraSize);
    ~FrameLatency();
    FrameLatency(const FrameLatency &) = delete;
    FrameLatency &operator=(const FrameLatency &) = delete;

    // Numbers the frames of the videotestsrc inside `cameraSource` (the synthetic camera's
    // element) from now on. Answers whether there was one to number.
    bool attach(GstElement *cameraSource);

    // One frame as written to the device (YUYV, rows packed), at `at`. Main thread.
    void written(const std::uint8_t *yuyv, int width, int height, std::chrono::steady_clock::time_point at);

    const LatencyHistogram &whole() const { return m_whole; }
    const LatencyHistogram &interval() const { return m_interval; }
    // Starts a new interval.
    void nextInterval();

    std::uint64_t framesNumbered() const;
    std::uint64_t framesDropped() const { return m_dropped; }
    std::uint64_t framesDroppedInInterval() const { return m_dropped - m_droppedBefore; }
    std::uint64_t writesRepeated() const { return m_repeated; }
    // Written frames that carried no number, or one whose arrival was no longer known.
    std::uint64_t writesUnmatched() const { return m_unmatched; }

    struct Numbering; // shared with the camera's thread

private:
    std::optional<std::uint32_t> readNumber(const std::uint8_t *yuyv, int width, int height) const;

    const QSize m_cameraSize;
    std::shared_ptr<Numbering> m_numbering;
    GstPad *m_pad = nullptr; // videotestsrc's source pad, strong reference
    unsigned long m_probe = 0;

    LatencyHistogram m_whole;
    LatencyHistogram m_interval;
    std::optional<std::uint64_t> m_lastWritten;
    std::uint64_t m_dropped = 0;
    std::uint64_t m_droppedBefore = 0;
    std::uint64_t m_repeated = 0;
    std::uint64_t m_unmatched = 0;
};

} // namespace vistrel::bench
