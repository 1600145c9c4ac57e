#include "vcam/VirtualCameraLink.h"

#include "core/SystemLog.h"
#include "core/Timers.h"
#include "vcam/FrameDrawing.h"
#include "vcam/FrameSize.h"
#include "vcam/PixelBuffer.h"
#include "vcam/PropertyAccess.h"
#include "vcam/SimpleQueue.h"

namespace vistrel::vcam {
namespace {

// Enough for a full sink queue, the frame the device writer holds, the one the
// preview shows and the one being drawn.
constexpr int kPoolExtraBuffers = 3;

} // namespace

VirtualCameraLink::VirtualCameraLink(VirtualCameraSystem *system, Timers &timers, QObject *parent)
    : QObject(parent), m_system(system),
      m_timer(timers.repeating(std::chrono::milliseconds(1000 / 30), Qt::PreciseTimer, [this] { fireTimer(); })),
      m_propTimer(timers.repeating(std::chrono::milliseconds(2000), Qt::CoarseTimer, [this] { propertyTimer(); }))
{}

VirtualCameraLink::~VirtualCameraLink() = default;

void VirtualCameraLink::startTimers()
{
    m_timer->start();
    m_propTimer->start();
}

void VirtualCameraLink::connectVirtualCamera()
{
    if (!m_system)
        return;
    const auto device = getDevice(*m_system, kVirtualCameraName);
    if (!device)
        return;
    const auto deviceObject = findDeviceByUID(*m_system, device->uniqueID);
    if (!deviceObject)
        return;
    const std::vector<ObjectID> streams = getStreams(*m_system, *deviceObject);
    if (streams.size() == 2) {
        m_sinkStream = streams[1];
        Q_EMIT message(QStringLiteral("found sink stream"));
        initSink(*deviceObject, streams[1]);
    }
    if (!streams.empty()) {
        m_sourceStream = streams[0];
        Q_EMIT message(QStringLiteral("found source stream"));
    }
}

bool VirtualCameraLink::virtualCameraReadable()
{
    if (!m_system)
        return false;
    const auto device = findVirtualCameraCaptureDevice(*m_system);
    if (!device)
        return false;
    const QString inputError = m_system->captureInputError(*device);
    if (!inputError.isEmpty()) {
        consoleLine(QStringLiteral("Erreur lors de la configuration de la caméra virtuelle : ") + inputError);
        return false;
    }
    return true;
}

void VirtualCameraLink::initSink(ObjectID device, ObjectID stream)
{
    m_videoDescription = std::make_shared<VideoFormatDescription>(
        VideoFormatDescription{codes::pixelFormatBGRA, kFrameWidth, kFrameHeight});

    std::shared_ptr<SimpleQueue> queue;
    const Status copied = m_system->copyBufferQueue(
        stream, [this] { sinkQueueAltered(); }, &queue);
    if (copied != 0) {
        Q_EMIT message(QStringLiteral("error starting sink"));
        return;
    }
    if (queue) {
        m_sinkQueue = queue;
        m_bufferPool =
            std::make_shared<PixelBufferPool>(m_videoDescription->width, m_videoDescription->height,
                                              m_videoDescription->codecType, queue->capacity() + kPoolExtraBuffers);
    }
    const Status started = m_system->startStream(device, stream);
    Q_EMIT message(started != 0 ? QStringLiteral("initSink error startstream") : QStringLiteral("initSink started"));
}

// The consumer's thread: it took a frame, so the next one may go.
void VirtualCameraLink::sinkQueueAltered()
{
    m_readyToEnqueue.store(true, std::memory_order_release);
}

void VirtualCameraLink::fireTimer()
{
    if (!m_needToStream || !m_sinkQueue || !m_currentImage)
        return;
    if (m_enqueued && !m_readyToEnqueue.load(std::memory_order_acquire))
        return;
    m_enqueued = true;
    m_readyToEnqueue.store(false, std::memory_order_release);
    enqueueFrame(*m_sinkQueue, *m_currentImage);
}

void VirtualCameraLink::enqueueFrame(SimpleQueue &queue, const QImage &image)
{
    if (queue.count() >= queue.capacity()) {
        consoleLine(QStringLiteral("error enqueuing"));
        return;
    }
    if (!m_bufferPool)
        qFatal("VirtualCameraLink: frame submitted without a pixel buffer pool");
    std::shared_ptr<PixelBuffer> buffer = m_bufferPool->createPixelBuffer();
    if (!buffer) {
        consoleLine(QStringLiteral("error getting pixel buffer"));
        return;
    }
    drawFrame(*buffer, image, m_mirrorCamera);

    if (!m_videoDescription)
        qFatal("VirtualCameraLink: frame submitted without a video format description");
    Q_EMIT frameSent(buffer);
    queue.enqueue(SampleBuffer{std::move(buffer), m_videoDescription, hostTimeNanoseconds()});
}

void VirtualCameraLink::pollStreamState()
{
    if (!m_sourceStream || !m_system)
        return;
    writeJustProperty(*m_system, *m_sourceStream, QStringLiteral("random"));
    if (const auto value = readJustProperty(*m_system, *m_sourceStream))
        setNeedToStream(*value == QLatin1String("sc=1"));
}

void VirtualCameraLink::setNeedToStream(bool need)
{
    if (m_needToStream.exchange(need, std::memory_order_relaxed) != need)
        Q_EMIT streamingChanged(need);
}

void VirtualCameraLink::propertyTimer()
{
    followLostVirtualCamera();
    pollStreamState();
}

// The virtual camera can vanish while the app runs (its device deleted, its module
// unloaded); its sink then stops writing and reports itself lost. The first poll that
// sees this takes the link down, and the window shows what it shows when there is no
// virtual camera, with the console line of a camera not found. The lost sink stays as
// the mark of that state (its streams are gone, the gate is closed); each later poll
// connects again once the camera is listed.
void VirtualCameraLink::followLostVirtualCamera()
{
    if (!m_sinkQueue || !m_sinkQueue->isLost())
        return;
    if (m_sinkStream || m_sourceStream) {
        m_sinkStream.reset();
        m_sourceStream.reset();
        setNeedToStream(false);
        m_enqueued = false;
        m_readyToEnqueue = false;
        Q_EMIT virtualCameraLost();
        consoleLine(QStringLiteral("Erreur : Caméra virtuelle 'Vistrel' non trouvée."));
        return;
    }
    if (!m_system || !virtualCameraCaptureDevice(*m_system))
        return;
    connectVirtualCamera();
    if (!m_sinkQueue->isLost())
        Q_EMIT virtualCameraBack();
}

} // namespace vistrel::vcam
