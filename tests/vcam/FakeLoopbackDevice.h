#pragma once
// A v4l2loopback device node as the sink meets it through its system calls. It refuses a
// bare stream-on (as 0.14+ does) and has no reader-count event (as 0.12 has not); what
// write() does is the test's to choose.
#include "vcam/v4l2loopback/VideoDeviceIo.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <linux/videodev2.h>
#include <mutex>
#include <thread>
#include <vector>

namespace vistrel::test {

class FakeLoopbackDevice final : public vcam::VideoDeviceIo
{
public:
    static constexpr int kNeverReturns = -1;
    // 0 takes every write, an errno fails each with it, kNeverReturns blocks each for good.
    void setWriteError(int error) { std::lock_guard lock(m_mutex); m_error = error; }

    // Writes asked for so far (taken or not) and the threads they came from; frames taken.
    std::vector<std::thread::id> writerThreads() const { std::lock_guard lock(m_mutex); return m_writers; }
    int framesTaken() const { std::lock_guard lock(m_mutex); return m_taken; }
    int openDescriptors() const { std::lock_guard lock(m_mutex); return m_open; }
    bool waitForWriteCalls(int calls)
    {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(5), [&] { return static_cast<int>(m_writers.size()) >= calls; });
    }

    int open(const QByteArray &, int) override { std::lock_guard lock(m_mutex); ++m_open; return kDescriptor; }
    int close(int) override { std::lock_guard lock(m_mutex); --m_open; return 0; }
    int ioctl(int, unsigned long request, void *argument) override
    {
        if (request == VIDIOC_QUERYCAP)
            static_cast<v4l2_capability *>(argument)->capabilities = V4L2_CAP_VIDEO_OUTPUT | V4L2_CAP_VIDEO_CAPTURE;
        else if (request != VIDIOC_S_PARM && request != VIDIOC_S_FMT)
            return fail(EINVAL); // stream-on, the reader-count event
        return 0;
    }
    ssize_t write(int, const void *, std::size_t size) override
    {
        std::unique_lock lock(m_mutex);
        m_writers.push_back(std::this_thread::get_id());
        m_changed.notify_all();
        if (m_error == kNeverReturns)
            m_changed.wait(lock, [] { return false; });
        if (m_error)
            return fail(m_error);
        ++m_taken;
        return static_cast<ssize_t>(size);
    }

private:
    static constexpr int kDescriptor = 1000;
    static int fail(int error) { errno = error; return -1; }

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_error = 0, m_taken = 0, m_open = 0;
    std::vector<std::thread::id> m_writers;
};

} // namespace vistrel::test
