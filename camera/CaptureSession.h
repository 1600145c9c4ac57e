#pragma once
#include "camera/CameraDevice.h"

#include <QSize>
#include <QString>
#include <functional>
#include <memory>

typedef struct _GstElement GstElement;
typedef struct _GstSample GstSample;

namespace vistrel::camera {

// The source element of one camera, made by the camera's own GStreamer device.
class CaptureDeviceInput
{
public:
    // Answers nothing, with the reason in *error, when the device cannot make its source.
    static std::shared_ptr<CaptureDeviceInput> create(const CameraDevice &device, QString *error);
    ~CaptureDeviceInput();
    CaptureDeviceInput(const CaptureDeviceInput &) = delete;
    CaptureDeviceInput &operator=(const CaptureDeviceInput &) = delete;

    GstElement *element() const { return m_source; }

private:
    explicit CaptureDeviceInput(GstElement *source);
    GstElement *m_source;
};

// Decoding, one conversion to the picture format (see SampleImage.h) and an appsink
// that holds at most one frame, drops late ones and never waits for the clock. Each
// frame goes to the delegate on the pipeline's streaming thread.
class VideoDataOutput
{
public:
    using SampleDelegate = std::function<void(GstSample *)>;

    VideoDataOutput();
    // Detaches the delegate; a frame being delivered at that moment is finished first.
    ~VideoDataOutput();
    VideoDataOutput(const VideoDataOutput &) = delete;
    VideoDataOutput &operator=(const VideoDataOutput &) = delete;

    // Replaces the delegate; callable from the main thread while frames flow.
    void setSampleBufferDelegate(SampleDelegate delegate);
    // Asked on the streaming thread before each frame is converted: a frame it declines
    // is dropped as it comes, costing no conversion. No filter takes every frame.
    void setFrameFilter(std::function<bool()> wanted);
    // Pictures are made no wider and no taller than this (empty: the camera's size);
    // a larger frame is shrunk by nearest pixels as it is converted.
    void setLargestPictureSize(QSize size);
    GstElement *element() const { return m_bin; }

    struct DelegateSlot;

private:
    GstElement *m_bin = nullptr;
    std::shared_ptr<DelegateSlot> m_slot;
};

// One capture pipeline: a camera's source feeding a video data output. Each session
// is its own pipeline with its own streaming thread. Starting and releasing are jobs
// of the application's PipelineWorker, so the main thread never waits for a device.
//
// Threads: everything here is called on the main thread; the start's `done` and the
// runtime error handler are called there too. The start and the release run on the
// worker's threads; bus messages are read on GStreamer's.
class CaptureSession
{
public:
    CaptureSession();
    ~CaptureSession();
    CaptureSession(const CaptureSession &) = delete;
    CaptureSession &operator=(const CaptureSession &) = delete;

    bool canAddInput(const CaptureDeviceInput &input) const;
    void addInput(std::shared_ptr<CaptureDeviceInput> input);
    bool canAddOutput(const VideoDataOutput &output) const;
    void addOutput(std::shared_ptr<VideoDataOutput> output);

    // Sets the pipeline playing on a worker thread (opening a camera can take a
    // while, and waits for the release of the session it replaces), then calls `done` on the main thread: true once running, or false with
    // GStreamer's error text. An empty session starts and delivers nothing. Nothing is
    // called once the session is gone.
    using StartHandler = std::function<void(bool running, const QString &error)>;
    void startRunning(StartHandler done = nullptr);
    bool isRunning() const { return m_running; }

    // Called on the main thread with GStreamer's error text when the running pipeline
    // fails later on (a camera unplugged, a source that stops).
    void setRuntimeErrorHandler(std::function<void(const QString &)> handler);

    struct BusRelay;

private:
    void linkIfComplete();

    GstElement *m_pipeline = nullptr;
    std::shared_ptr<CaptureDeviceInput> m_input;
    std::shared_ptr<VideoDataOutput> m_output;
    std::shared_ptr<BusRelay> m_relay;
    bool m_running = false;
};

} // namespace vistrel::camera
