#pragma once
#include "vcam/FrameSize.h"
#include "vcam/SimpleQueue.h"
#include "vcam/v4l2loopback/VideoDeviceIo.h"

#include <QString>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>

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
//
// Threads: everything but the writer runs on the main thread, which never writes to
// the device: a write() into a device whose module went away can stay in the kernel
// for good. Stopping waits for the writer at most kStopTimeout; a writer still stuck
// after that is given up (one line in the system log) and keeps alive, on its own,
// everything it can still touch.
class LoopbackSink final : public SimpleQueue
{
public:
    static constexpr int kWidth = kFrameWidth;
    static constexpr int kHeight = kFrameHeight;
    static constexpr int kFrameRate = 30;
    static constexpr int kCapacity = 3;
    static constexpr std::chrono::seconds kStopTimeout{2};

    LoopbackSink(QString devicePath, std::function<void()> queueAltered,
                 std::shared_ptr<VideoDeviceIo> io = VideoDeviceIo::kernel());
    // Stops the writer as stop() does.
    ~LoopbackSink() override;

    // Opens the device for output, runs the writing sequence and queues one black
    // frame for the writer to send at once, so readers find a capture device of a
    // fixed size. 0 or an errno value.
    Status start();
    bool isStarted() const;

    // Stops the writer, waiting at most kStopTimeout. Answers false when the writer
    // had to be given up.
    bool stop();

    // Whether anyone reads the device: the number of readers from v4l2loopback's
    // client-usage event (0.13+), or "unknown" (-1) where the driver has no such event,
    // the device is not open or is lost.
    int readerCount();

    int count() const override;
    int capacity() const override { return kCapacity; }
    // Refused with ENODEV once the device is lost.
    Status enqueue(SampleBuffer sample) override;
    // After a write that failed because the device is gone (deleted, its module
    // unloaded): the writer has stopped writing and said so once in the system log, and
    // the sink makes no more calls on the device.
    bool isLost() const override;

private:
    // Everything the writer thread touches, shared with it.
    struct Writer;

    bool subscribeToReaderCount();

    const std::shared_ptr<Writer> m_shared;
    std::thread m_writer;
    bool m_readerCountKnown = false;
    int m_readers = -1;
};

} // namespace vistrel::vcam
