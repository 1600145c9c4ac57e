#pragma once
#include "vcam/SimpleQueue.h"
#include "vcam/VirtualCameraSystem.h"

#include <QImage>
#include <QString>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace vistrel::test {

// The sink queue of the simulated camera: bounded, and drained either by the test
// (takeFrame) or by a reader thread at its own pace. Each taken frame is kept as a
// copy, and the queue-altered callback fires after each take, as a real consumer's.
class SimulatedQueue final : public vcam::SimpleQueue
{
public:
    SimulatedQueue(int capacity, std::function<void()> queueAltered);
    ~SimulatedQueue() override;

    int count() const override;
    int capacity() const override { return m_capacity; }
    vcam::Status enqueue(vcam::SampleBuffer sample) override;

    // Takes the oldest frame if any; answers whether there was one. A frame kept is
    // copied for lastFrame(); a reader that only makes room (a benchmark's, whose copy is
    // not the app's work) keeps none.
    enum class Keep { Frame, Nothing };
    bool takeFrame(Keep keep = Keep::Frame);
    // Calls the queue-altered callback without taking a frame, as a consumer may.
    void alter() { m_queueAltered(); }
    void startReader(std::chrono::milliseconds interval);
    void stopReader();

    int framesEnqueued() const { return m_enqueued.load(); }
    int framesTaken() const { return m_taken.load(); }
    QImage lastFrame() const;
    std::int64_t lastPresentationTimeNs() const;

private:
    const int m_capacity;
    const std::function<void()> m_queueAltered;
    mutable std::mutex m_mutex;
    std::deque<vcam::SampleBuffer> m_samples;
    QImage m_lastFrame;
    std::int64_t m_lastTime = 0;
    std::atomic<int> m_enqueued{0};
    std::atomic<int> m_taken{0};
    std::atomic<bool> m_readerRunning{false};
    std::thread m_reader;
};

// An in-process stand-in for the virtual camera, behind the same interface as the
// v4l2loopback backend: a device (by default "Vistrel" with two streams) whose source
// stream's "just" answer the test sets, a sink queue, and switches for the failures a
// real system can have.
class SimulatedExtension final : public vcam::VirtualCameraSystem
{
public:
    struct Device
    {
        QString name = QStringLiteral("Vistrel");
        QString uid = QStringLiteral("sim:vistrel");
        vcam::CaptureDeviceType type = vcam::CaptureDeviceType::ExternalUnknown;
        int streamCount = 2;
        bool inHardwareList = true; // listed among the system object's devices
    };

    SimulatedExtension();

    // Configuration (set before the controller starts its link).
    std::vector<Device> devices;
    std::optional<QString> justAnswer = QStringLiteral("sc=1"); // nullopt: no such property
    bool justSettable = true;
    bool deviceListReadable = true; // false: the system object's "dev#" cannot be read
    bool justReadable = true;       // false: "just" is there but reading it fails
    bool failCopyBufferQueue = false;
    bool failStartStream = false;
    QString captureInputFailure;
    int queueCapacity = 3;

    // What happened.
    std::vector<QString> justWrites;
    std::shared_ptr<SimulatedQueue> queue;
    // When set, the app is handed this wrapping of the queue instead.
    std::function<std::shared_ptr<vcam::SimpleQueue>(std::shared_ptr<vcam::SimpleQueue>)> wrapQueue;

    vcam::ObjectID deviceObject(int index) const;
    std::vector<vcam::ObjectID> streamObjects(int index) const;

    bool hasProperty(vcam::ObjectID object, const vcam::PropertyAddress &address) override;
    bool isPropertySettable(vcam::ObjectID object, const vcam::PropertyAddress &address) override;
    std::optional<std::vector<vcam::ObjectID>> objectListProperty(vcam::ObjectID object,
                                                                  const vcam::PropertyAddress &address) override;
    std::optional<QString> stringProperty(vcam::ObjectID object, const vcam::PropertyAddress &address) override;
    vcam::Status setStringProperty(vcam::ObjectID object, const vcam::PropertyAddress &address,
                                   const QString &value) override;
    std::vector<vcam::CaptureDevice> captureDevices(std::initializer_list<vcam::CaptureDeviceType> types) override;
    QString captureInputError(const vcam::CaptureDevice &device) override;
    vcam::Status copyBufferQueue(vcam::ObjectID stream, std::function<void()> queueAltered,
                                 std::shared_ptr<vcam::SimpleQueue> *queueOut) override;
    vcam::Status startStream(vcam::ObjectID device, vcam::ObjectID stream) override;

private:
    int deviceIndexOf(vcam::ObjectID object) const;
    bool isStream(vcam::ObjectID object) const;
};

} // namespace vistrel::test
