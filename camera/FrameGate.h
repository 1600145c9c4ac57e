#pragma once
#include <functional>
#include <memory>
#include <mutex>

typedef struct _GstSample GstSample;

namespace vistrel::camera {

// Passes frames from streaming threads to one receiver until the gate closes.
// Closing waits for a frame being handed over at that moment, so that once close()
// has returned the receiver is never called again and may be destroyed.
class FrameGate : public std::enable_shared_from_this<FrameGate>
{
public:
    // `wanted`, when given, is asked on the streaming thread before a frame is prepared
    // for the receiver at all, so that frames nobody needs cost no conversion.
    explicit FrameGate(std::function<void(GstSample *)> receiver, std::function<bool()> wanted = nullptr)
        : m_receiver(std::move(receiver)), m_wanted(std::move(wanted))
    {}

    // The receiver's handle on a new gate: releasing the handle closes the gate, even
    // while streaming threads still hold senders.
    static std::shared_ptr<FrameGate> openUntilReleased(std::function<void(GstSample *)> receiver,
                                                        std::function<bool()> wanted = nullptr)
    {
        auto gate = std::make_shared<FrameGate>(std::move(receiver), std::move(wanted));
        return std::shared_ptr<FrameGate>(gate.get(), [gate](FrameGate *) { gate->close(); });
    }

    // A delegate for a streaming thread; it keeps the gate (not the receiver) alive.
    std::function<void(GstSample *)> sender()
    {
        return [gate = shared_from_this()](GstSample *sample) { gate->deliver(sample); };
    }

    // A filter for the streaming thread: whether the receiver wants the next frame;
    // false once the gate is closed.
    std::function<bool()> filter()
    {
        return [gate = shared_from_this()] { return gate->wants(); };
    }

    bool wants()
    {
        std::lock_guard lock(m_mutex);
        return m_receiver && (!m_wanted || m_wanted());
    }

    void deliver(GstSample *sample)
    {
        std::lock_guard lock(m_mutex);
        if (m_receiver)
            m_receiver(sample);
    }

    void close()
    {
        std::lock_guard lock(m_mutex);
        m_receiver = nullptr;
        m_wanted = nullptr;
    }

private:
    std::mutex m_mutex;
    std::function<void(GstSample *)> m_receiver;
    std::function<bool()> m_wanted;
};

} // namespace vistrel::camera
