#include "bench/FramePathHarness.h"

#include "camera/CameraSource.h"
#include "camera/CaptureSession.h"
#include "camera/SampleImage.h"
#include "vcam/FrameSize.h"
#include "vcam/PixelBuffer.h"
#include "vcam/VirtualCameraLink.h"
#include "vcam/v4l2loopback/YuyvConversion.h"

#include <sys/mman.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QFile>
#include <QTimer>
#include <chrono>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>

namespace vistrel::bench {

bool waitOnEventLoop(const std::function<bool()> &done, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    // A wake-up now and then, so the deadline is seen even when nothing is posted.
    static QTimer *heartbeat = [] {
        auto *timer = new QTimer(QCoreApplication::instance());
        timer->start(100);
        return timer;
    }();
    Q_UNUSED(heartbeat);
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

// --- CaptureIntake ---------------------------------------------------------------

CaptureIntake::CaptureIntake(GstCaps *cameraCaps)
    : m_camera(QStringLiteral("Synthetic camera"), SyntheticCamera::pushSourceDescription()),
      m_session(std::make_unique<camera::CaptureSession>())
{
    QString error;
    auto input = camera::CaptureDeviceInput::create(m_camera.device(), &error);
    if (!input)
        return;
    g_object_set(m_camera.lastSource(), "caps", cameraCaps, nullptr);
    m_session->addInput(input);
    m_output = std::make_shared<camera::VideoDataOutput>();
    m_output->setLargestPictureSize(QSize(vcam::kFrameWidth, vcam::kFrameHeight)); // as the app sets it
    m_session->addOutput(m_output);
    m_output->setSampleBufferDelegate([this](GstSample *sample) {
        QImage picture = camera::imageFromSample(sample);
        {
            std::lock_guard lock(m_mutex);
            m_picture = std::move(picture);
            m_fresh = true;
        }
        m_delivered.notify_one();
    });
    m_session->startRunning();
    waitOnEventLoop([this] { return m_session->isRunning(); });
}

CaptureIntake::~CaptureIntake()
{
    if (m_output)
        m_output->setSampleBufferDelegate(nullptr);
}

bool CaptureIntake::isRunning() const
{
    return m_session->isRunning();
}

QImage CaptureIntake::deliver(GstBuffer *frame)
{
    gst_app_src_push_buffer(GST_APP_SRC(m_camera.lastSource()), gst_buffer_ref(frame));
    std::unique_lock lock(m_mutex);
    if (!m_delivered.wait_for(lock, std::chrono::seconds(2), [this] { return m_fresh; }))
        return {};
    m_fresh = false;
    return std::move(m_picture);
}

// --- YuyvWritingQueue ------------------------------------------------------------

YuyvWritingQueue::YuyvWritingQueue(std::shared_ptr<vcam::SimpleQueue> inner)
    : m_inner(std::move(inner)), m_device(memfd_create("vistrel-bench-device", MFD_CLOEXEC))
{}

YuyvWritingQueue::~YuyvWritingQueue()
{
    if (m_device >= 0)
        close(m_device);
}

vcam::Status YuyvWritingQueue::enqueue(vcam::SampleBuffer sample)
{
    const vcam::PixelBuffer &pixels = *sample.imageBuffer;
    m_yuyv.resize(vcam::yuyvFrameBytes(pixels.width(), pixels.height())); // once: the size never changes
    m_toYuyv.convert(pixels, m_yuyv.data());
    // The device writer's write() has the kernel copy the frame into the device's
    // buffer: the app's work too (its time, not its memory), so the frame is written the
    // same way, over the same pages of a memory file each time.
    if (m_device >= 0 && pwrite(m_device, m_yuyv.data(), m_yuyv.size(), 0) < 0)
        qWarning("YuyvWritingQueue: the frame could not be written");
    return m_inner->enqueue(std::move(sample));
}

// --- LinkedController ------------------------------------------------------------

LinkedController::LinkedController(FrameWriting writing)
{
    m_extension.justAnswer = QStringLiteral("sc=1");
    // The device writer's YUYV conversion, when asked for, is done by the sink queue.
    if (writing == FrameWriting::Yuyv)
        m_extension.wrapQueue = [this](std::shared_ptr<vcam::SimpleQueue> queue) {
            auto writing = std::make_shared<YuyvWritingQueue>(std::move(queue));
            m_yuyvQueue = writing;
            return writing;
        };
    m_services.virtualCamera = &m_extension;
    m_controller = std::make_unique<ViewController>(m_services);
    m_controller->link().connectVirtualCamera();
    m_controller->link().pollStreamState();
}

bool LinkedController::startCamera(GstCaps *cameraCaps)
{
    m_camera =
        std::make_unique<SyntheticCamera>(QStringLiteral("Synthetic camera"), SyntheticCamera::pushSourceDescription());
    m_controller->cameraSource().configureCapture(m_camera->device());
    if (!m_camera->lastSource())
        return false;
    g_object_set(m_camera->lastSource(), "caps", cameraCaps, nullptr);
    return waitOnEventLoop([this] { return m_controller->cameraSource().captureSession()->isRunning(); });
}

bool LinkedController::deliverCameraFrame(GstBuffer *frame)
{
    const auto &current = m_controller->link().currentImage();
    const qint64 previous = current ? current->cacheKey() : 0;
    gst_app_src_push_buffer(GST_APP_SRC(m_camera->lastSource()), gst_buffer_ref(frame));
    return waitOnEventLoop([&current, previous] { return current && current->cacheKey() != previous; }, 2000);
}

bool LinkedController::writeLastFrame(const QString &path) const
{
    const std::shared_ptr<YuyvWritingQueue> queue = m_yuyvQueue.lock();
    if (!queue || queue->lastFrame().empty())
        return false;
    QFile file(path);
    const auto &frame = queue->lastFrame();
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate)
        && file.write(reinterpret_cast<const char *>(frame.data()), static_cast<qint64>(frame.size()))
        == static_cast<qint64>(frame.size());
}

bool LinkedController::tick()
{
    const int before = m_extension.queue ? m_extension.queue->framesEnqueued() : 0;
    m_controller->link().fireTimer();
    return m_extension.queue && m_extension.queue->framesEnqueued() == before + 1;
}

} // namespace vistrel::bench
