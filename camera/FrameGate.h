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
    explicit FrameGate(std::function<void(GstSample *)> receiver) : m_receiver(std::move(receiver)) {}

    // The receiver's handle on a new gate: releasing the handle closes the gate, even
    // while streaming threads still hold senders.
    static std::shared_ptr<FrameGate> openUntilReleased(std::function<void(GstSample *)> receiver)
    {
        auto gate = std::make_shared<FrameGate>(std::move(receiver));
        return std::shared_ptr<FrameGate>(gate.get(), [gate](FrameGate *) { gate->close(); });
    }

    // A delegate for a streaming thread; it keeps the gate (not the receiver) alive.
    std::function<void(GstSample *)> sender()
    {
        return [gate = shared_from_this()](GstSample *sample) { gate->deliver(sample); };
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
    }

private:
    std::mutex m_mutex;
    std::function<void(GstSample *)> m_receiver;
};

} // namespace vistrel::camera
