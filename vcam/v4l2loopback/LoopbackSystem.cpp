#include "vcam/v4l2loopback/LoopbackSystem.h"

#include "vcam/v4l2loopback/LoopbackSink.h"
#include "vcam/v4l2loopback/VideoDeviceList.h"

#include <QFileInfo>
#include <cerrno>

namespace vistrel::vcam {

namespace {

bool isGlobalMain(const PropertyAddress &address)
{
    return address.scope == codes::scopeGlobal && address.element == codes::elementMain;
}

} // namespace

LoopbackSystem::LoopbackSystem(QString sysRoot, QString devRoot, std::shared_ptr<VideoDeviceIo> io)
    : m_sysRoot(std::move(sysRoot)), m_devRoot(std::move(devRoot)), m_io(std::move(io))
{}

LoopbackSystem::~LoopbackSystem() = default;

std::vector<ObjectID> LoopbackSystem::refreshDevices()
{
    std::vector<ObjectID> devices;
    for (const VideoDeviceEntry &video : listVideoDevices(m_sysRoot, m_devRoot)) {
        if (!video.isLoopback())
            continue;
        auto found = m_devicesByNode.find(video.node);
        if (found == m_devicesByNode.end()) {
            // Identifiers stay stable for a node for the life of the process.
            const Device device{m_nextObject, m_nextObject + 1, m_nextObject + 2};
            m_nextObject += 3;
            m_objects[device.id] = {video.node, Role::Device, device.id};
            m_objects[device.source] = {video.node, Role::SourceStream, device.id};
            m_objects[device.sink] = {video.node, Role::SinkStream, device.id};
            found = m_devicesByNode.emplace(video.node, device).first;
        }
        devices.push_back(found->second.id);
    }
    return devices;
}

const LoopbackSystem::Entry *LoopbackSystem::entry(ObjectID object) const
{
    const auto found = m_objects.find(object);
    return found == m_objects.end() ? nullptr : &found->second;
}

bool LoopbackSystem::hasProperty(ObjectID object, const PropertyAddress &address)
{
    if (!isGlobalMain(address))
        return false;
    if (object == kSystemObject)
        return address.selector == codes::devices;
    const Entry *found = entry(object);
    if (!found)
        return false;
    if (found->role == Role::Device)
        return address.selector == codes::deviceUID || address.selector == codes::streams;
    return address.selector == codes::just;
}

bool LoopbackSystem::isPropertySettable(ObjectID object, const PropertyAddress &address)
{
    const Entry *found = entry(object);
    return found && found->role != Role::Device && address.selector == codes::just && isGlobalMain(address);
}

std::optional<std::vector<ObjectID>> LoopbackSystem::objectListProperty(ObjectID object, const PropertyAddress &address)
{
    if (!hasProperty(object, address))
        return std::nullopt;
    if (object == kSystemObject)
        return refreshDevices();
    const Entry &found = *entry(object);
    if (address.selector != codes::streams)
        return std::nullopt;
    const Device &device = m_devicesByNode.at(found.node);
    return std::vector<ObjectID>{device.source, device.sink};
}

std::optional<QString> LoopbackSystem::stringProperty(ObjectID object, const PropertyAddress &address)
{
    if (!hasProperty(object, address) || object == kSystemObject)
        return std::nullopt;
    const Entry &found = *entry(object);
    switch (address.selector) {
    case codes::deviceUID: return found.node;
    case codes::just: return justAnswer(found.node);
    default: return std::nullopt;
    }
}

Status LoopbackSystem::setStringProperty(ObjectID object, const PropertyAddress &address, const QString &)
{
    // "just" takes any text (the app writes "random" before each read) and keeps none.
    return isPropertySettable(object, address) ? 0 : EINVAL;
}

QString LoopbackSystem::justAnswer(const QString &node)
{
    const auto sink = m_sinks.find(node);
    const std::shared_ptr<LoopbackSink> live = sink == m_sinks.end() ? nullptr : sink->second.lock();
    const int readers = live ? live->readerCount() : -1;
    return readers == 0 ? QStringLiteral("sc=0") : QStringLiteral("sc=1");
}

std::vector<CaptureDevice> LoopbackSystem::captureDevices(std::initializer_list<CaptureDeviceType> types)
{
    // Loopback devices are the external cameras of this world; every other video node
    // counts as a built-in one.
    std::vector<CaptureDevice> devices;
    const auto entries = listVideoDevices(m_sysRoot, m_devRoot);
    for (const CaptureDeviceType type : types) {
        for (const VideoDeviceEntry &video : entries) {
            const CaptureDeviceType own =
                video.isLoopback() ? CaptureDeviceType::ExternalUnknown : CaptureDeviceType::BuiltInWideAngleCamera;
            if (own == type)
                devices.push_back({video.name, video.node, own});
        }
    }
    return devices;
}

QString LoopbackSystem::captureInputError(const CaptureDevice &device)
{
    // The preview never opens the device (that would take a reader's place), so the
    // only thing to check is that its node is there.
    if (!QFileInfo::exists(device.uniqueID))
        return QStringLiteral("The device node ") + device.uniqueID + QStringLiteral(" does not exist.");
    return {};
}

Status LoopbackSystem::copyBufferQueue(ObjectID stream, std::function<void()> queueAltered,
                                       std::shared_ptr<SimpleQueue> *queue)
{
    const Entry *found = entry(stream);
    if (!found || found->role != Role::SinkStream || !queue || !queueAltered)
        return EINVAL;
    auto sink = std::make_shared<LoopbackSink>(found->node, std::move(queueAltered), m_io);
    m_sinks[found->node] = sink;
    *queue = std::move(sink);
    return 0;
}

Status LoopbackSystem::startStream(ObjectID device, ObjectID stream)
{
    const Entry *found = entry(stream);
    if (!found || found->role != Role::SinkStream || found->device != device)
        return EINVAL;
    const auto sink = m_sinks.find(found->node);
    const std::shared_ptr<LoopbackSink> live = sink == m_sinks.end() ? nullptr : sink->second.lock();
    if (!live)
        return ENODEV;
    return live->start();
}

} // namespace vistrel::vcam
