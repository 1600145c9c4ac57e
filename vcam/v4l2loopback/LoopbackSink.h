#pragma once
#include "vcam/FrameSize.h"
#include "vcam/SimpleQueue.h"
#include "vcam/v4l2loopback/YuyvConversion.h"

#include <QString>
#include <array>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace vistrel::vcam {

// The output side of one v4l2loopback device: the sink queue the app fills, and a
// writer thread that converts each frame to YUYV, writes it to the device and then
// reports the queue change.
//
// The writing sequence works on v4l2loopback 0.12 through 0.15: open, check the
// device takes output, set the frame rate and 1280x720 YUYV, then try a bare
// stream-on. 0.12/0.13 accept it (and with exclusive_caps need it, or the device can
// start only once): the sink keeps it until it closes. 0.14+ refuse it without
// requested buffers: plain write() is the way there.
class LoopbackSink final : public SimpleQueue
{
public:
    static constexpr int kWidth = kFrameWidth;
    static constexpr int kHeight = kFrameHeight;
    static constexpr int kFrameRate = 30;
    static constexpr int kCapacity = 3;

    LoopbackSink(QString devicePath, std::function<void()> queueAltered);
    ~LoopbackSink() override;

    // Opens the device for output, runs the writing sequence and writes one frame at
    // once, so readers find a capture device of a fixed size. 0 or an errno value.
    Status start();
    bool isStarted() const { return m_fd >= 0; }

    // Whether anyone reads the device: the number of readers from v4l2loopback's
    // client-usage event (0.13+), or "unknown" (-1) where the driver has no such event
    // or the device is not open.
    int readerCount();

    int count() const override;
    int capacity() const override { return kCapacity; }
    Status enqueue(SampleBuffer sample) override;

private:
    void writeFrames();
    bool subscribeToReaderCount();
    void reportWriteFailure(int error);

    const QString m_devicePath;
    const std::function<void()> m_queueAltered;
    int m_fd = -1;
    bool m_streamOn = false;
    bool m_readerCountKnown = false;
    int m_readers = -1;

    mutable std::mutex m_mutex;
    std::condition_variable m_wake;
    std::array<SampleBuffer, kCapacity> m_slots;
    int m_head = 0;
    int m_count = 0;
    bool m_stopping = false;
    // Touched by the writer thread only once it runs:
    std::vector<std::uint8_t> m_yuyv;
    BgraToYuyvConverter m_toYuyv;
    std::atomic<int> m_lastWriteError{0};
    std::thread m_writer;
};

} // namespace vistrel::vcam
