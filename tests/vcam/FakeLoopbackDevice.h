#pragma once
// A v4l2loopback device node as the sink meets it through its system calls, for the
// kernel module this machine does not have. It takes output in any format, refuses a
// bare stream-on (as 0.14+ does) and has no reader-count event (as 0.12 has not), so
// the camera always reads as wanted. What write() does is the test's to choose: take
// the frame, fail with an errno, or never return.
#include "vcam/v4l2loopback/VideoDeviceIo.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <linux/videodev2.h>
#include <mutex>
#include <sys/ioctl.h>
#include <thread>
#include <vector>

namespace vistrel::test {

class FakeLoopbackDevice final : public vcam::VideoDeviceIo
{
public:
    enum class Writes { Taken, Failing, NeverReturning };

    // 0 takes every write; an errno fails each one with it; blocking ones wait for a
    // release that never comes.
    void setWrites(Writes writes, int error = 0)
    {
        std::lock_guard lock(m_mutex);
        m_writes = writes;
        m_error = error;
    }

    // Writes asked for so far (taken or not), the threads they came from, the frames taken.
    int writeCalls() const
    {
        std::lock_guard lock(m_mutex);
        return static_cast<int>(m_writers.size());
    }
    std::vector<std::thread::id> writerThreads() const
    {
        std::lock_guard lock(m_mutex);
        return m_writers;
    }
    int framesTaken() const
    {
        std::lock_guard lock(m_mutex);
        return m_taken;
    }
    int openDescriptors() const
    {
        std::lock_guard lock(m_mutex);
        return m_open;
    }
    bool waitForWriteCalls(int calls, std::chrono::milliseconds timeout = std::chrono::seconds(5))
    {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, timeout, [&] { return static_cast<int>(m_writers.size()) >= calls; });
    }

    int open(const QByteArray &, int) override
    {
        std::lock_guard lock(m_mutex);
        ++m_open;
        return kDescriptor;
    }
    int ioctl(int fd, unsigned long request, void *argument) override
    {
        if (fd != kDescriptor)
            return fail(EBADF);
        switch (request) {
        case VIDIOC_QUERYCAP: {
            auto *capability = static_cast<v4l2_capability *>(argument);
            capability->capabilities = V4L2_CAP_VIDEO_OUTPUT | V4L2_CAP_VIDEO_CAPTURE;
            return 0;
        }
        case VIDIOC_S_PARM:
        case VIDIOC_S_FMT:
            return 0;
        default: // stream-on, the reader-count event
            return fail(EINVAL);
        }
    }
    ssize_t write(int fd, const void *, std::size_t size) override
    {
        std::unique_lock lock(m_mutex);
        m_writers.push_back(std::this_thread::get_id());
        m_changed.notify_all();
        if (fd != kDescriptor)
            return fail(EBADF);
        switch (m_writes) {
        case Writes::Taken:
            ++m_taken;
            return static_cast<ssize_t>(size);
        case Writes::Failing:
            return fail(m_error);
        case Writes::NeverReturning:
            m_changed.wait(lock, [] { return false; });
        }
        return fail(EIO);
    }
    int close(int fd) override
    {
        std::lock_guard lock(m_mutex);
        if (fd != kDescriptor || m_open == 0)
            return fail(EBADF);
        --m_open;
        return 0;
    }

private:
    static constexpr int kDescriptor = 1000;
    static int fail(int error)
    {
        errno = error;
        return -1;
    }

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    Writes m_writes = Writes::Taken;
    int m_error = 0;
    int m_taken = 0;
    int m_open = 0;
    std::vector<std::thread::id> m_writers;
};

} // namespace vistrel::test
