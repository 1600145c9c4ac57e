#include "vcam/v4l2loopback/LoopbackSink.h"

#include "core/AbandonedThreads.h"
#include "core/SystemLog.h"
#include "core/TraceLog.h"
#include "vcam/PixelBuffer.h"
#include "vcam/v4l2loopback/YuyvConversion.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <fcntl.h>
#include <linux/videodev2.h>
#include <mutex>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>
#include <vector>

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
        result = ::ioctl(fd, request, argument);
    } while (result < 0 && errno == EINTR);
    return result;
}

class KernelVideoDeviceIo final : public VideoDeviceIo
{
public:
    int open(const QByteArray &path, int flags) override { return ::open(path.constData(), flags); }
    int queryCapabilities(int fd, v4l2_capability &capability) override
    {
        return retryingIoctl(fd, VIDIOC_QUERYCAP, &capability);
    }
    int setParameters(int fd, v4l2_streamparm &parameters) override
    {
        return retryingIoctl(fd, VIDIOC_S_PARM, &parameters);
    }
    int setFormat(int fd, v4l2_format &format) override { return retryingIoctl(fd, VIDIOC_S_FMT, &format); }
    int streamOn(int fd) override { return streamRequest(fd, VIDIOC_STREAMON); }
    int streamOff(int fd) override { return streamRequest(fd, VIDIOC_STREAMOFF); }
    int subscribeEvent(int fd, v4l2_event_subscription &subscription) override
    {
        return retryingIoctl(fd, VIDIOC_SUBSCRIBE_EVENT, &subscription);
    }
    int dequeueEvent(int fd, v4l2_event &event) override { return retryingIoctl(fd, VIDIOC_DQEVENT, &event); }
    ssize_t write(int fd, const void *data, std::size_t size) override { return ::write(fd, data, size); }
    int close(int fd) override { return ::close(fd); }

private:
    static int streamRequest(int fd, unsigned long request)
    {
        int type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
        return retryingIoctl(fd, request, &type);
    }
};

QString errorText(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

// Errors after which the descriptor is dead: the device was deleted or its module
// unloaded. Another write could only fail again (or hang).
bool isDeviceGone(int error)
{
    return error == ENODEV || error == ENXIO || error == EIO || error == EBADF;
}

} // namespace

std::shared_ptr<VideoDeviceIo> VideoDeviceIo::kernel()
{
    static const auto io = std::make_shared<KernelVideoDeviceIo>();
    return io;
}

struct LoopbackSink::Writer
{
    Writer(QString path, std::function<void()> altered, std::shared_ptr<VideoDeviceIo> deviceIo)
        : devicePath(std::move(path)), queueAltered(std::move(altered)), io(std::move(deviceIo))
    {}
    // The last owner closes the device: the sink, or a writer that outlived it. A lost
    // device's descriptor is left as it is until the process ends: once its module is
    // gone (a forced unload), any further call on it can reach the unloaded module and
    // oops the kernel in the calling thread.
    ~Writer()
    {
        if (fd < 0 || lost)
            return;
        if (streamOn)
            io->streamOff(fd);
        io->close(fd);
    }

    void run();
    // 0, or the errno of a failed write of the converted frame.
    int writeFrame();
    void reportWriteFailure(int error);
    void giveUpDevice(int error);

    const QString devicePath;
    const std::function<void()> queueAltered;
    const std::shared_ptr<VideoDeviceIo> io;
    // Set by start() before the writer runs; constant from then on.
    int fd = -1;
    bool streamOn = false;

    mutable std::mutex mutex;
    std::condition_variable wake;     // a frame to write, or stop
    std::condition_variable finished; // the writer's loop has ended
    std::array<SampleBuffer, kCapacity> slots;
    int head = 0;
    int count = 0;
    bool firstFrame = false; // the black frame that starts the device is due
    bool stopping = false;
    bool lost = false; // the device is gone: nothing is written any more
    bool done = false;
    // Held while the queue-altered callback runs, so that none runs once stop() has
    // taken it: the callback's owner may be gone after that.
    std::mutex callback;
    std::atomic<bool> inWrite{false};

    // The writer's own:
    std::vector<std::uint8_t> yuyv;
    BgraToYuyvConverter toYuyv;
    int lastWriteError = 0;
};

void LoopbackSink::Writer::run()
{
    for (;;) {
        SampleBuffer sample;
        bool black = false;
        {
            std::unique_lock lock(mutex);
            wake.wait(lock, [this] { return stopping || firstFrame || count > 0; });
            if (stopping)
                break;
            if (firstFrame) {
                black = true;
                firstFrame = false;
            } else {
                sample = std::move(slots[static_cast<std::size_t>(head)]);
                head = (head + 1) % kCapacity;
                --count;
            }
        }
        if (black) {
            fillYuyvBlack(yuyv.data(), kWidth, kHeight);
            if (const int error = writeFrame()) {
                if (isDeviceGone(error)) {
                    giveUpDevice(error);
                    break;
                }
                systemLog(devicePath + QStringLiteral(": first frame not written: ") + errorText(error));
            }
            continue;
        }
        if (sample.imageBuffer && sample.imageBuffer->width() == kWidth && sample.imageBuffer->height() == kHeight) {
            toYuyv.convert(*sample.imageBuffer, yuyv.data());
            // The pixels are converted: the buffer can go back to the pool now.
            sample.imageBuffer.reset();
            if (const int error = writeFrame()) {
                if (isDeviceGone(error)) {
                    giveUpDevice(error);
                    break;
                }
                reportWriteFailure(error);
            } else {
                lastWriteError = 0;
            }
        }
        std::lock_guard calling(callback);
        {
            std::lock_guard lock(mutex);
            if (stopping)
                break;
        }
        queueAltered();
    }
    {
        std::lock_guard lock(mutex);
        done = true;
    }
    finished.notify_all();
}

int LoopbackSink::Writer::writeFrame()
{
    inWrite = true;
    ssize_t written;
    do {
        written = io->write(fd, yuyv.data(), yuyv.size());
    } while (written < 0 && errno == EINTR);
    const int error = written < 0 ? errno : 0;
    inWrite = false;
    return error;
}

void LoopbackSink::Writer::reportWriteFailure(int error)
{
    // One line per kind of failure, not one per frame: a failure that lasts would
    // otherwise flood the log thirty times a second.
    if (std::exchange(lastWriteError, error) != error)
        systemLog(QStringLiteral("Writing to ") + devicePath + QStringLiteral(" failed: ") + errorText(error));
}

void LoopbackSink::Writer::giveUpDevice(int error)
{
    {
        std::lock_guard lock(mutex);
        lost = true;
        for (SampleBuffer &queued : slots)
            queued = {};
        count = 0;
        if (stopping)
            return; // the sink has gone on without us: nobody to tell
    }
    traceLog(QStringLiteral("Writing to ") + devicePath + QStringLiteral(" failed: ") + errorText(error)
             + QStringLiteral(" (the device is gone: no more frames are written to it)"));
}

LoopbackSink::LoopbackSink(QString devicePath, std::function<void()> queueAltered, std::shared_ptr<VideoDeviceIo> io)
    : m_shared(std::make_shared<Writer>(std::move(devicePath), std::move(queueAltered), std::move(io)))
{}

LoopbackSink::~LoopbackSink()
{
    stop();
}

bool LoopbackSink::isStarted() const
{
    return m_shared->fd >= 0;
}

bool LoopbackSink::stop()
{
    if (!m_writer.joinable())
        return true;
    Writer &writer = *m_shared;
    bool stopped;
    {
        std::unique_lock lock(writer.mutex);
        writer.stopping = true;
        writer.wake.notify_all();
        stopped = writer.finished.wait_for(lock, kStopTimeout, [&] { return writer.done; });
    }
    if (stopped) {
        m_writer.join();
        return true;
    }
    // Given up: once the callback lock is ours, the writer sees `stopping` before it
    // could call back, so the callback's owner may go.
    std::lock_guard calling(writer.callback);
    traceLog(QStringLiteral("Virtual camera writer did not stop within ") + QString::number(kStopTimeout.count())
             + QStringLiteral(" s: given up")
             + (writer.inWrite ? QStringLiteral(", stuck in a write to ") + writer.devicePath : QString()));
    // Most likely inside a write() that may never return; it owns, through the shared
    // Writer, all it can still touch.
    keepUntilExit(std::move(m_writer));
    return false;
}

Status LoopbackSink::start()
{
    Writer &writer = *m_shared;
    if (writer.fd >= 0)
        return 0;
    VideoDeviceIo &io = *writer.io;
    const QString &devicePath = writer.devicePath;
    const int fd = io.open(devicePath.toLocal8Bit(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        const int error = errno;
        systemLog(QStringLiteral("Cannot open ") + devicePath + QStringLiteral(" for output: ") + errorText(error));
        return error;
    }
    auto fail = [&](const char *step) {
        const int error = errno ? errno : EINVAL;
        systemLog(devicePath + QStringLiteral(": ") + QLatin1String(step) + QStringLiteral(" failed: ")
                  + errorText(error));
        io.close(fd);
        return error;
    };

    v4l2_capability capability{};
    if (io.queryCapabilities(fd, capability) < 0)
        return fail("VIDIOC_QUERYCAP");
    const std::uint32_t caps =
        (capability.capabilities & V4L2_CAP_DEVICE_CAPS) ? capability.device_caps : capability.capabilities;
    if (!(caps & V4L2_CAP_VIDEO_OUTPUT)) {
        // With exclusive_caps a device another program already writes to offers
        // capture only; it is not ours to feed.
        errno = EBUSY;
        return fail("output capability check");
    }

    v4l2_streamparm parameters{};
    parameters.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    parameters.parm.output.timeperframe = {1, kFrameRate};
    io.setParameters(fd, parameters); // older releases ignore it; not fatal

    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    format.fmt.pix.width = kWidth;
    format.fmt.pix.height = kHeight;
    format.fmt.pix.pixelformat = V4L2_PIX_FMT_YUYV;
    format.fmt.pix.field = V4L2_FIELD_NONE;
    format.fmt.pix.bytesperline = kWidth * 2;
    format.fmt.pix.sizeimage = static_cast<std::uint32_t>(yuyvFrameBytes(kWidth, kHeight));
    format.fmt.pix.colorspace = V4L2_COLORSPACE_SRGB;
    if (io.setFormat(fd, format) < 0)
        return fail("VIDIOC_S_FMT");

    writer.streamOn = io.streamOn(fd) == 0;
    writer.fd = fd;
    m_readerCountKnown = subscribeToReaderCount();

    writer.yuyv.resize(yuyvFrameBytes(kWidth, kHeight));
    writer.firstFrame = true; // written by the writer, first of all

    systemLog(QStringLiteral("Virtual camera output on ") + devicePath
              + (writer.streamOn ? QStringLiteral(" (stream-on)") : QStringLiteral(" (write)"))
              + (m_readerCountKnown ? QStringLiteral(", reader count from the driver")
                                    : QStringLiteral(", reader count unknown")));
    m_writer = std::thread([shared = m_shared] { shared->run(); });
    return 0;
}

bool LoopbackSink::subscribeToReaderCount()
{
    v4l2_event_subscription subscription{};
    subscription.type = kClientUsageEvent;
    subscription.flags = V4L2_EVENT_SUB_FL_SEND_INITIAL;
    return m_shared->io->subscribeEvent(m_shared->fd, subscription) == 0;
}

int LoopbackSink::readerCount()
{
    if (m_shared->fd < 0 || !m_readerCountKnown || isLost())
        return -1;
    // The device is non-blocking: dequeue until no event is left; the last one counts.
    v4l2_event event{};
    while (m_shared->io->dequeueEvent(m_shared->fd, event) == 0) {
        if (event.type == kClientUsageEvent) {
            ClientUsageEvent usage{};
            std::memcpy(&usage, event.u.data, sizeof usage);
            m_readers = static_cast<int>(usage.count);
        }
    }
    return m_readers < 0 ? 0 : m_readers;
}

bool LoopbackSink::isLost() const
{
    std::lock_guard lock(m_shared->mutex);
    return m_shared->lost;
}

int LoopbackSink::count() const
{
    std::lock_guard lock(m_shared->mutex);
    return m_shared->count;
}

Status LoopbackSink::enqueue(SampleBuffer sample)
{
    Writer &writer = *m_shared;
    {
        std::lock_guard lock(writer.mutex);
        if (writer.lost)
            return ENODEV;
        if (writer.count == kCapacity || writer.stopping || !m_writer.joinable())
            return -1;
        writer.slots[static_cast<std::size_t>((writer.head + writer.count) % kCapacity)] = std::move(sample);
        ++writer.count;
    }
    writer.wake.notify_one();
    return 0;
}

} // namespace vistrel::vcam
