#pragma once
#include <QImage>
#include <QObject>
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>

namespace vistrel {
class RepeatingTimer;
class Timers;
} // namespace vistrel

namespace vistrel::vcam {

class PixelBuffer;
class PixelBufferPool;
class SimpleQueue;
class VirtualCameraSystem;
struct VideoFormatDescription;
using ObjectID = std::uint32_t;

// The link to the virtual camera: finds its device and streams, connects the sink
// queue, and every 1/30 s sends the current picture, drawn into a 1280 × 720 frame, while
// someone reads the camera (needToStream, asked of the source stream every 2 s). A sink
// that reports its device lost takes the link down until the camera is listed again.
//
// Threads: the main thread calls every function and receives the signals, except
// needToStream(), which the camera's streaming thread also reads, and the queue's
// "altered" callback, which comes from the consumer's thread.
class VirtualCameraLink : public QObject
{
    Q_OBJECT
public:
    VirtualCameraLink(VirtualCameraSystem *system, Timers &timers, QObject *parent = nullptr);
    ~VirtualCameraLink() override;

    // Finds the camera's device and its streams: with two, the second is the sink and is
    // started; the first is always the source.
    void connectVirtualCamera();
    // Starts the 1/30 s frame tick and the 2 s poll, again from now if they ran.
    void startTimers();
    // Whether the virtual camera's capture device is there and its input opens; a
    // console line says why not.
    bool virtualCameraReadable();

    // The picture the next tick sends, and whether it is mirrored.
    void setCurrentImage(const QImage &picture) { m_currentImage = picture; }
    const std::optional<QImage> &currentImage() const { return m_currentImage; }
    void setMirrorCamera(bool mirror) { m_mirrorCamera = mirror; }

    // The 1/30 s tick: sends the current picture when someone reads and the consumer
    // has taken the last frame.
    void fireTimer();
    // The 2 s poll: follows a lost camera, then asks whether someone reads.
    void propertyTimer();
    void pollStreamState();

    std::optional<ObjectID> sourceStream() const { return m_sourceStream; }
    std::optional<ObjectID> sinkStream() const { return m_sinkStream; }
    const std::shared_ptr<SimpleQueue> &sinkQueue() const { return m_sinkQueue; }
    PixelBufferPool *bufferPool() const { return m_bufferPool.get(); }

    // Any thread.
    bool needToStream() const { return m_needToStream.load(std::memory_order_relaxed); }

Q_SIGNALS:
    // The link's own messages ("found sink stream", "initSink started", …).
    void message(const QString &text);
    // A frame about to be sent, as the camera's readers will see it.
    void frameSent(const std::shared_ptr<const PixelBuffer> &frame);
    // The camera's device vanished: nothing is sent until it is back.
    void virtualCameraLost();
    // The camera is listed again and its sink connected.
    void virtualCameraBack();
    // needToStream changed: a first reader came, or the last one left.
    void streamingChanged(bool streaming);

private:
    void initSink(ObjectID device, ObjectID stream);
    void sinkQueueAltered();
    void enqueueFrame(SimpleQueue &queue, const QImage &image);
    void followLostVirtualCamera();
    void setNeedToStream(bool need);

    VirtualCameraSystem *const m_system;
    std::atomic<bool> m_needToStream{false};
    std::atomic<bool> m_readyToEnqueue{false};
    bool m_enqueued = false;
    bool m_mirrorCamera = false;
    std::optional<QImage> m_currentImage;
    std::shared_ptr<VideoFormatDescription> m_videoDescription;
    std::shared_ptr<PixelBufferPool> m_bufferPool;
    std::optional<ObjectID> m_sourceStream;
    std::optional<ObjectID> m_sinkStream;
    std::shared_ptr<SimpleQueue> m_sinkQueue;
    std::unique_ptr<RepeatingTimer> m_timer;
    std::unique_ptr<RepeatingTimer> m_propTimer;
};

} // namespace vistrel::vcam
