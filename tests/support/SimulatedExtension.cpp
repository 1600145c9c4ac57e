#include "SimulatedExtension.h"

#include "vcam/PixelBuffer.h"

#include <cstring>

namespace vistrel::test {

using namespace vcam;

// ---- The queue ----

SimulatedQueue::SimulatedQueue(int capacity, std::function<void()> queueAltered)
    : m_capacity(capacity), m_queueAltered(std::move(queueAltered))
{
}

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

bool SimulatedQueue::takeFrame()
{
    {
        std::lock_guard lock(m_mutex);
        if (m_samples.empty())
            return false;
        SampleBuffer sample = std::move(m_samples.front());
        m_samples.pop_front();
        if (sample.imageBuffer)
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

std::uint32_t SimulatedExtension::getPropertyDataSize(ObjectID object, const PropertyAddress &address)
{
    if (object == kSystemObject && address.selector == codes::devices) {
        if (deviceListSizeOverride)
            return *deviceListSizeOverride;
        std::uint32_t listed = 0;
        for (const Device &device : devices)
            listed += device.inHardwareList ? 1 : 0;
        return listed * sizeof(ObjectID);
    }
    if (!hasProperty(object, address))
        return 0;
    if (address.selector == codes::streams)
        return static_cast<std::uint32_t>(devices[static_cast<std::size_t>(deviceIndexOf(object))].streamCount *
                                          sizeof(ObjectID));
    return sizeof(QString);
}

std::uint32_t SimulatedExtension::getPropertyData(ObjectID object, const PropertyAddress &address,
                                                  std::uint32_t dataSize, void *data)
{
    auto copyObjects = [&](const std::vector<ObjectID> &objects) {
        const std::uint32_t bytes =
            std::min<std::uint32_t>(dataSize / sizeof(ObjectID), static_cast<std::uint32_t>(objects.size())) *
            sizeof(ObjectID);
        if (bytes)
            std::memcpy(data, objects.data(), bytes);
        return bytes;
    };
    auto copyString = [&](const QString &value) -> std::uint32_t {
        if (dataSize < sizeof(QString))
            return 0;
        *static_cast<QString *>(data) = value;
        return sizeof(QString);
    };
    if (object == kSystemObject && address.selector == codes::devices) {
        std::vector<ObjectID> listed;
        for (std::size_t i = 0; i < devices.size(); ++i)
            if (devices[i].inHardwareList)
                listed.push_back(deviceObject(static_cast<int>(i)));
        return copyObjects(listed);
    }
    if (!hasProperty(object, address))
        return 0;
    const int index = deviceIndexOf(object);
    if (address.selector == codes::deviceUID)
        return copyString(devices[static_cast<std::size_t>(index)].uid);
    if (address.selector == codes::streams)
        return copyObjects(streamObjects(index));
    return copyString(*justAnswer);
}

Status SimulatedExtension::setPropertyData(ObjectID object, const PropertyAddress &address, std::uint32_t dataSize,
                                           const void *data)
{
    if (!isPropertySettable(object, address))
        return -1;
    justWriteSizes.push_back(dataSize);
    if (dataSize >= sizeof(QString))
        justWrites.push_back(*static_cast<const QString *>(data));
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
