#pragma once
#include "SimulatedExtension.h"
#include "bench/SyntheticCamera.h"
#include "ui/ViewController.h"
#include "vcam/SimpleQueue.h"
#include "vcam/v4l2loopback/YuyvConversion.h"

#include <QImage>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

namespace vistrel::camera {
class CaptureSession;
class VideoDataOutput;
} // namespace vistrel::camera

namespace vistrel::bench {

// Runs the event loop until `done` holds or the time is up; never spins.
bool waitOnEventLoop(const std::function<bool()> &done, int timeoutMs = 5000);

// The camera intake on its own: a push-driven synthetic camera in a real capture
// session (the real VideoDataOutput's decoding, conversion and appsink), each sample
// wrapped by imageFromSample on the streaming thread, as the controller does.
class CaptureIntake
{
public:
    explicit CaptureIntake(GstCaps *cameraCaps);
    ~CaptureIntake();

    bool isRunning() const;
    // Pushes one camera frame and waits for its picture (null after 2 s without one).
    QImage deliver(GstBuffer *frame);

private:
    SyntheticCamera m_camera;
    std::unique_ptr<camera::CaptureSession> m_session;
    std::shared_ptr<camera::VideoDataOutput> m_output;
    std::mutex m_mutex;
    std::condition_variable m_delivered;
    QImage m_picture;
    bool m_fresh = false;
};

// The device writer's work, done where the frame is enqueued: each frame is converted
// to YUYV and written once, as the loopback sink's writer thread converts it and write()s
// it, and then handed to the simulated extension's queue.
class YuyvWritingQueue final : public vcam::SimpleQueue
{
public:
    explicit YuyvWritingQueue(std::shared_ptr<vcam::SimpleQueue> inner);
    ~YuyvWritingQueue() override;
    YuyvWritingQueue(const YuyvWritingQueue &) = delete;
    YuyvWritingQueue &operator=(const YuyvWritingQueue &) = delete;
    int count() const override { return m_inner->count(); }
    int capacity() const override { return m_inner->capacity(); }
    vcam::Status enqueue(vcam::SampleBuffer sample) override;
    // The last frame as the device gets it: 1280x720 YUYV.
    const std::vector<std::uint8_t> &lastFrame() const { return m_yuyv; }

private:
    std::shared_ptr<vcam::SimpleQueue> m_inner;
    std::vector<std::uint8_t> m_yuyv;
    int m_device = -1; // a memory file standing for the device
    vcam::BgraToYuyvConverter m_toYuyv;
};

// A real ViewController linked to the simulated extension (answering "sc=1"), with the
// sink stream connected through the real start-up steps.
class LinkedController
{
public:
    // Whether the sink queue also converts each frame to YUYV, as the device writer does.
    enum class FrameWriting { Bgra, Yuyv };
    explicit LinkedController(FrameWriting writing = FrameWriting::Bgra);

    // Starts the controller's real capture on a push-driven synthetic camera.
    bool startCamera(GstCaps *cameraCaps);
    // Pushes one camera frame and runs the event loop until it is the current picture.
    bool deliverCameraFrame(GstBuffer *frame);
    // One frame tick; answers whether it enqueued a frame.
    bool tick();
    // The consumer takes the oldest frame, which reopens the gate; its reading is its own
    // work, not the app's, so nothing is copied.
    void consumeFrame() { m_extension.queue->takeFrame(test::SimulatedQueue::Keep::Nothing); }
    // Writes the last frame sent, as the device gets it (YUYV), to `path`.
    bool writeLastFrame(const QString &path) const;

    ViewController &controller() { return *m_controller; }

private:
    test::SimulatedExtension m_extension;
    std::weak_ptr<YuyvWritingQueue> m_yuyvQueue;
    Services m_services;
    std::unique_ptr<ViewController> m_controller;
    std::unique_ptr<SyntheticCamera> m_camera;
};

} // namespace vistrel::bench
