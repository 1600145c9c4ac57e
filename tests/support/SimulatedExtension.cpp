#include "SimulatedExtension.h"

#include "vcam/PixelBuffer.h"

namespace vistrel::test {

using namespace vcam;

// ---- The queue ----

SimulatedQueue::SimulatedQueue(int capacity, std::function<void()> queueAltered)
    : m_capacity(capacity), m_queueAltered(std::move(queueAltered))
{}

SimulatedQueue::~SimulatedQueue()
{
    stopReader();
}

int SimulatedQueue::count() const
{
    std::lock_guard lock(m_mutex);
    return static_cast<int>(m_samples.size());
}

Status SimulatedQueue::enqueue(SampleBuffer sample)
{
    std::lock_guard lock(m_mutex);
    if (static_cast<int>(m_samples.size()) >= m_capacity)
        return -1;
    m_samples.push_back(std::move(sample));
    ++m_enqueued;
    return 0;
}

bool SimulatedQueue::takeFrame(Keep keep)
{
    {
        std::lock_guard lock(m_mutex);
        if (m_samples.empty())
            return false;
        SampleBuffer sample = std::move(m_samples.front());
        m_samples.pop_front();
        if (sample.imageBuffer && keep == Keep::Frame)
            m_lastFrame = sample.imageBuffer->image().copy(); // the pool buffer goes back
        m_lastTime = sample.presentationTimeNs;
        ++m_taken;
    }
    m_queueAltered();
    return true;
}

void SimulatedQueue::startReader(std::chrono::milliseconds interval)
{
    stopReader();
    m_readerRunning = true;
    m_reader = std::thread([this, interval] {
        while (m_readerRunning) {
            takeFrame();
            std::this_thread::sleep_for(interval);
        }
    });
}

void SimulatedQueue::stopReader()
{
    m_readerRunning = false;
    if (m_reader.joinable())
        m_reader.join();
}

QImage SimulatedQueue::lastFrame() const
{
    std::lock_guard lock(m_mutex);
    return m_lastFrame;
}

std::int64_t SimulatedQueue::lastPresentationTimeNs() const
{
    std::lock_guard lock(m_mutex);
    return m_lastTime;
}

// ---- The system ----

namespace {
constexpr ObjectID kFirstDevice = 100;
constexpr ObjectID kObjectsPerDevice = 10; // the device, then its streams

bool isGlobalMain(const PropertyAddress &address)
{
    return address.scope == codes::scopeGlobal && address.element == codes::elementMain;
}
} // namespace

SimulatedExtension::SimulatedExtension() : devices{Device{}} {}

ObjectID SimulatedExtension::deviceObject(int index) const
{
    return kFirstDevice + static_cast<ObjectID>(index) * kObjectsPerDevice;
}

std::vector<ObjectID> SimulatedExtension::streamObjects(int index) const
{
    std::vector<ObjectID> streams;
    for (int i = 0; i < devices.at(static_cast<std::size_t>(index)).streamCount; ++i)
        streams.push_back(deviceObject(index) + 1 + static_cast<ObjectID>(i));
    return streams;
}

int SimulatedExtension::deviceIndexOf(ObjectID object) const
{
    if (object < kFirstDevice)
        return -1;
    const int index = static_cast<int>((object - kFirstDevice) / kObjectsPerDevice);
    if (index >= static_cast<int>(devices.size()))
        return -1;
    const ObjectID offset = (object - kFirstDevice) % kObjectsPerDevice;
    return offset <= static_cast<ObjectID>(devices[static_cast<std::size_t>(index)].streamCount) ? index : -1;
}

bool SimulatedExtension::isStream(ObjectID object) const
{
    return deviceIndexOf(object) >= 0 && (object - kFirstDevice) % kObjectsPerDevice != 0;
}

bool SimulatedExtension::hasProperty(ObjectID object, const PropertyAddress &address)
{
    if (!isGlobalMain(address))
        return false;
    if (object == kSystemObject)
        return address.selector == codes::devices;
    if (isStream(object))
        return address.selector == codes::just && justAnswer.has_value();
    if (deviceIndexOf(object) >= 0)
        return address.selector == codes::deviceUID || address.selector == codes::streams;
    return false;
}

bool SimulatedExtension::isPropertySettable(ObjectID object, const PropertyAddress &address)
{
    return isStream(object) && address.selector == codes::just && justSettable;
}

std::optional<std::vector<ObjectID>> SimulatedExtension::objectListProperty(ObjectID object,
                                                                            const PropertyAddress &address)
{
    if (!hasProperty(object, address))
        return std::nullopt;
    if (object == kSystemObject) {
        if (!deviceListReadable)
            return std::nullopt;
        std::vector<ObjectID> listed;
        for (std::size_t i = 0; i < devices.size(); ++i)
            if (devices[i].inHardwareList)
                listed.push_back(deviceObject(static_cast<int>(i)));
        return listed;
    }
    if (address.selector == codes::streams)
        return streamObjects(deviceIndexOf(object));
    return std::nullopt;
}

std::optional<QString> SimulatedExtension::stringProperty(ObjectID object, const PropertyAddress &address)
{
    if (!hasProperty(object, address) || object == kSystemObject)
        return std::nullopt;
    if (address.selector == codes::deviceUID)
        return devices[static_cast<std::size_t>(deviceIndexOf(object))].uid;
    if (address.selector == codes::just && justReadable)
        return justAnswer;
    return std::nullopt;
}

Status SimulatedExtension::setStringProperty(ObjectID object, const PropertyAddress &address, const QString &value)
{
    if (!isPropertySettable(object, address))
        return -1;
    justWrites.push_back(value);
    return 0;
}

std::vector<CaptureDevice> SimulatedExtension::captureDevices(std::initializer_list<CaptureDeviceType> types)
{
    std::vector<CaptureDevice> found;
    for (const CaptureDeviceType type : types)
        for (const Device &device : devices)
            if (device.type == type)
                found.push_back({device.name, device.uid, device.type});
    return found;
}

QString SimulatedExtension::captureInputError(const CaptureDevice &)
{
    return captureInputFailure;
}

Status SimulatedExtension::copyBufferQueue(ObjectID stream, std::function<void()> queueAltered,
                                           std::shared_ptr<SimpleQueue> *queueOut)
{
    if (failCopyBufferQueue || !isStream(stream))
        return -1;
    queue = std::make_shared<SimulatedQueue>(queueCapacity, std::move(queueAltered));
    *queueOut = wrapQueue ? wrapQueue(queue) : queue;
    return 0;
}

Status SimulatedExtension::startStream(ObjectID, ObjectID)
{
    return failStartStream ? -1 : 0;
}

} // namespace vistrel::test
