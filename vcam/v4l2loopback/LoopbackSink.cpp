#include "vcam/v4l2loopback/LoopbackSink.h"

#include "app/SystemLog.h"
#include "vcam/PixelBuffer.h"
#include "vcam/v4l2loopback/YuyvConversion.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace vistrel::vcam {

namespace {

// v4l2loopback 0.13+ defines its client-usage event only in its module source; the
// numbers are part of its user interface.
constexpr unsigned kClientUsageEvent = V4L2_EVENT_PRIVATE_START + 0x08E00000 + 1;
struct ClientUsageEvent
{
    std::uint32_t count;
};

int retryingIoctl(int fd, unsigned long request, void *argument)
{
    int result;
    do {
        result = ioctl(fd, request, argument);
    } while (result < 0 && errno == EINTR);
    return result;
}

QString errorText(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

} // namespace

LoopbackSink::LoopbackSink(QString devicePath, std::function<void()> queueAltered)
    : m_devicePath(std::move(devicePath)), m_queueAltered(std::move(queueAltered))
{
}

LoopbackSink::~LoopbackSink()
{
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    if (m_writer.joinable())
        m_writer.join();
    if (m_fd >= 0) {
        if (m_streamOn) {
            int type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
            retryingIoctl(m_fd, VIDIOC_STREAMOFF, &type);
        }
        ::close(m_fd);
    }
}

Status LoopbackSink::start()
{
    if (m_fd >= 0)
        return 0;
    const int fd = ::open(m_devicePath.toLocal8Bit().constData(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        const int error = errno;
        systemLog(QStringLiteral("Cannot open ") + m_devicePath + QStringLiteral(" for output: ") + errorText(error));
        return error;
    }
    auto fail = [&](const char *step) {
        const int error = errno ? errno : EINVAL;
        systemLog(m_devicePath + QStringLiteral(": ") + QLatin1String(step) + QStringLiteral(" failed: ") +
                  errorText(error));
        ::close(fd);
        return error;
    };

    v4l2_capability capability{};
    if (retryingIoctl(fd, VIDIOC_QUERYCAP, &capability) < 0)
        return fail("VIDIOC_QUERYCAP");
    const std::uint32_t caps = (capability.capabilities & V4L2_CAP_DEVICE_CAPS) ? capability.device_caps
                                                                                 : capability.capabilities;
    if (!(caps & V4L2_CAP_VIDEO_OUTPUT)) {
        // With exclusive_caps a device another program already writes to offers
        // capture only; it is not ours to feed.
        errno = EBUSY;
        return fail("output capability check");
    }

    v4l2_streamparm parameters{};
    parameters.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    parameters.parm.output.timeperframe = {1, kFrameRate};
    retryingIoctl(fd, VIDIOC_S_PARM, &parameters); // older releases ignore it; not fatal

    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    format.fmt.pix.width = kWidth;
    format.fmt.pix.height = kHeight;
    format.fmt.pix.pixelformat = V4L2_PIX_FMT_YUYV;
    format.fmt.pix.field = V4L2_FIELD_NONE;
    format.fmt.pix.bytesperline = kWidth * 2;
    format.fmt.pix.sizeimage = static_cast<std::uint32_t>(yuyvFrameBytes(kWidth, kHeight));
    format.fmt.pix.colorspace = V4L2_COLORSPACE_SRGB;
    if (retryingIoctl(fd, VIDIOC_S_FMT, &format) < 0)
        return fail("VIDIOC_S_FMT");

    int type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    m_streamOn = retryingIoctl(fd, VIDIOC_STREAMON, &type) == 0;
    m_fd = fd;
    m_readerCountKnown = subscribeToReaderCount();

    m_yuyv.resize(yuyvFrameBytes(kWidth, kHeight));
    fillYuyvBlack(m_yuyv.data(), kWidth, kHeight);
    if (::write(m_fd, m_yuyv.data(), m_yuyv.size()) < 0)
        systemLog(m_devicePath + QStringLiteral(": first frame not written: ") + errorText(errno));

    systemLog(QStringLiteral("Virtual camera output on ") + m_devicePath +
              (m_streamOn ? QStringLiteral(" (stream-on)") : QStringLiteral(" (write)")) +
              (m_readerCountKnown ? QStringLiteral(", reader count from the driver")
                                  : QStringLiteral(", reader count unknown")));
    m_writer = std::thread([this] { writeFrames(); });
    return 0;
}

bool LoopbackSink::subscribeToReaderCount()
{
    v4l2_event_subscription subscription{};
    subscription.type = kClientUsageEvent;
    subscription.flags = V4L2_EVENT_SUB_FL_SEND_INITIAL;
    return retryingIoctl(m_fd, VIDIOC_SUBSCRIBE_EVENT, &subscription) == 0;
}

int LoopbackSink::readerCount()
{
    if (m_fd < 0 || !m_readerCountKnown)
        return -1;
    // The device is non-blocking: dequeue until no event is left; the last one counts.
    v4l2_event event{};
    while (retryingIoctl(m_fd, VIDIOC_DQEVENT, &event) == 0) {
        if (event.type == kClientUsageEvent) {
            ClientUsageEvent usage{};
            std::memcpy(&usage, event.u.data, sizeof usage);
            m_readers = static_cast<int>(usage.count);
        }
    }
    return m_readers < 0 ? 0 : m_readers;
}

int LoopbackSink::count() const
{
    std::lock_guard lock(m_mutex);
    return m_count;
}

Status LoopbackSink::enqueue(SampleBuffer sample)
{
    {
        std::lock_guard lock(m_mutex);
        if (m_count == kCapacity || m_stopping || !m_writer.joinable())
            return -1;
        m_slots[static_cast<std::size_t>((m_head + m_count) % kCapacity)] = std::move(sample);
        ++m_count;
    }
    m_wake.notify_one();
    return 0;
}

void LoopbackSink::writeFrames()
{
    for (;;) {
        SampleBuffer sample;
        {
            std::unique_lock lock(m_mutex);
            m_wake.wait(lock, [this] { return m_stopping || m_count > 0; });
            if (m_stopping)
                return;
            sample = std::move(m_slots[static_cast<std::size_t>(m_head)]);
            m_head = (m_head + 1) % kCapacity;
            --m_count;
        }
        if (sample.imageBuffer && sample.imageBuffer->width() == kWidth && sample.imageBuffer->height() == kHeight) {
            m_toYuyv.convert(*sample.imageBuffer, m_yuyv.data());
            // The pixels are converted: the buffer can go back to the pool now.
            sample.imageBuffer.reset();
            if (::write(m_fd, m_yuyv.data(), m_yuyv.size()) < 0)
                reportWriteFailure(errno);
            else
                m_lastWriteError.store(0, std::memory_order_relaxed);
        }
        m_queueAltered();
    }
}

void LoopbackSink::reportWriteFailure(int error)
{
    // One line per kind of failure, not one per frame: a device removed while
    // streaming would otherwise flood the log thirty times a second.
    if (m_lastWriteError.exchange(error, std::memory_order_relaxed) != error)
        systemLog(QStringLiteral("Writing to ") + m_devicePath + QStringLiteral(" failed: ") + errorText(error));
}

} // namespace vistrel::vcam
