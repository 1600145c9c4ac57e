#pragma once
// A v4l2loopback device node as the backend meets it through its calls, behaving as one
// release does (see Release). Every call is logged by name; what write() does and how
// many readers have the device open are the test's to choose.
#include "vcam/v4l2loopback/VideoDeviceIo.h"

#include <QStringList>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

namespace vistrel::test {

class FakeLoopbackDevice final : public vcam::VideoDeviceIo
{
public:
    enum class Release {
        V0_12, // no client-usage event; a bare stream-on is taken, and with exclusive_caps
               // the writer's frames reach readers only between stream-on and stream-off
        V0_13, // the client-usage event reports the readers; a bare stream-on is taken
        V0_15, // as 0.13, but a stream-on without requested buffers is refused (0.14+)
    };
    static constexpr unsigned kClientUsageEvent = V4L2_EVENT_PRIVATE_START + 0x08E00000 + 1;
    static constexpr int kNeverReturns = -1;

    explicit FakeLoopbackDevice(Release release = Release::V0_15) : m_release(release) {}

    // 0 takes every write, an errno fails each with it, kNeverReturns blocks each for good.
    void setWriteError(int error)
    {
        std::lock_guard lock(m_mutex);
        m_error = error;
    }
    // Readers that have the device open for capture (one to begin with); a change is
    // sent as a client-usage event to a subscriber.
    void setReaders(int readers)
    {
        std::lock_guard lock(m_mutex);
        m_readers = readers;
        m_eventDue = m_subscribed;
    }
    // A device another program already writes to offers capture only (exclusive_caps).
    void setOffersOutput(bool offers)
    {
        std::lock_guard lock(m_mutex);
        m_offersOutput = offers;
    }

    // The calls made since the last look, by name ("open", "querycap", "write"...; a
    // refused one is followed by "!").
    QStringList takeCalls()
    {
        std::lock_guard lock(m_mutex);
        return std::exchange(m_calls, {});
    }
    // Writes asked for so far (taken or not) and the threads they came from; frames taken.
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
    bool waitForWriteCalls(int calls)
    {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(5),
                                  [&] { return static_cast<int>(m_writers.size()) >= calls; });
    }

    int open(const QByteArray &, int) override
    {
        std::lock_guard lock(m_mutex);
        ++m_open;
        return call("open", kDescriptor);
    }
    int close(int) override
    {
        std::lock_guard lock(m_mutex);
        --m_open;
        m_streaming = m_subscribed = false;
        return call("close");
    }
    int queryCapabilities(int, v4l2_capability &capability) override
    {
        std::lock_guard lock(m_mutex);
        capability.capabilities = V4L2_CAP_VIDEO_CAPTURE | (m_offersOutput ? V4L2_CAP_VIDEO_OUTPUT : 0);
        return call("querycap");
    }
    int setParameters(int, v4l2_streamparm &) override
    {
        std::lock_guard lock(m_mutex);
        return call("s_parm");
    }
    int setFormat(int, v4l2_format &) override
    {
        std::lock_guard lock(m_mutex);
        return call("s_fmt");
    }
    int streamOn(int) override
    {
        std::lock_guard lock(m_mutex);
        if (m_release == Release::V0_15)
            return call("streamon", -1, EINVAL);
        m_streaming = true;
        return call("streamon");
    }
    int streamOff(int) override
    {
        std::lock_guard lock(m_mutex);
        m_streaming = false;
        return call("streamoff");
    }
    int subscribeEvent(int, v4l2_event_subscription &subscription) override
    {
        std::lock_guard lock(m_mutex);
        if (m_release == Release::V0_12 || subscription.type != kClientUsageEvent)
            return call("subscribe", -1, EINVAL);
        m_subscribed = true;
        m_eventDue = (subscription.flags & V4L2_EVENT_SUB_FL_SEND_INITIAL) != 0;
        return call("subscribe");
    }
    int dequeueEvent(int, v4l2_event &event) override
    {
        std::lock_guard lock(m_mutex);
        if (!m_subscribed || !std::exchange(m_eventDue, false))
            return call("dqevent", -1, ENOENT);
        event = {};
        event.type = kClientUsageEvent;
        const auto count = static_cast<std::uint32_t>(m_readers);
        std::memcpy(event.u.data, &count, sizeof count);
        return call("dqevent");
    }
    ssize_t write(int, const void *, std::size_t size) override
    {
        std::unique_lock lock(m_mutex);
        m_writers.push_back(std::this_thread::get_id());
        m_changed.notify_all();
        if (m_error == kNeverReturns)
            m_changed.wait(lock, [] { return false; });
        // 0.12 with exclusive_caps: a writer that has not started the stream feeds no reader.
        const int error = m_error ? m_error : m_release == Release::V0_12 && !m_streaming ? EINVAL : 0;
        if (error)
            return call("write", -1, error);
        ++m_taken;
        return call("write", static_cast<ssize_t>(size));
    }

private:
    static constexpr int kDescriptor = 1000;
    template<typename Result = int>
    Result call(const char *name, Result result = 0, int error = 0)
    {
        m_calls << QLatin1String(name) + (error ? QStringLiteral("!") : QString());
        errno = error;
        return result;
    }

    const Release m_release;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_error = 0, m_taken = 0, m_open = 0, m_readers = 1;
    bool m_offersOutput = true, m_streaming = false, m_subscribed = false, m_eventDue = false;
    QStringList m_calls;
    std::vector<std::thread::id> m_writers;
};

} // namespace vistrel::test
