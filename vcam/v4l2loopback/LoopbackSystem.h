#pragma once
#include "vcam/VirtualCameraSystem.h"
#include "vcam/v4l2loopback/VideoDeviceIo.h"

#include <QString>
#include <map>
#include <memory>

namespace vistrel::vcam {

class LoopbackSink;

// The virtual camera's hardware layer over v4l2loopback. Every loopback device found
// in sysfs is one device object, whatever it currently offers (with exclusive_caps=1
// it is no capture device until written to), with two streams: the source (what
// readers see) first, the sink (what this app writes) second. A device's unique
// identifier is its node path, the same one capture-side discovery reports.
//
// The source stream's "just" property answers "sc=1" while at least one reader has
// the device open, "sc=0" otherwise; where the driver cannot tell (0.12.x) it always
// answers "sc=1". Writes to it are accepted and change nothing.
class LoopbackSystem final : public VirtualCameraSystem
{
public:
    // The device nodes are opened through io: the kernel's, or a test's stand-in.
    explicit LoopbackSystem(QString sysRoot = QStringLiteral("/sys"), QString devRoot = QStringLiteral("/dev"),
                            std::shared_ptr<VideoDeviceIo> io = VideoDeviceIo::kernel());
    ~LoopbackSystem() override;

    bool hasProperty(ObjectID object, const PropertyAddress &address) override;
    bool isPropertySettable(ObjectID object, const PropertyAddress &address) override;
    std::optional<std::vector<ObjectID>> objectListProperty(ObjectID object, const PropertyAddress &address) override;
    std::optional<QString> stringProperty(ObjectID object, const PropertyAddress &address) override;
    Status setStringProperty(ObjectID object, const PropertyAddress &address, const QString &value) override;

    std::vector<CaptureDevice> captureDevices(std::initializer_list<CaptureDeviceType> types) override;
    QString captureInputError(const CaptureDevice &device) override;

    Status copyBufferQueue(ObjectID stream, std::function<void()> queueAltered,
                           std::shared_ptr<SimpleQueue> *queue) override;
    Status startStream(ObjectID device, ObjectID stream) override;

private:
    enum class Role { Device, SourceStream, SinkStream };
    struct Entry
    {
        QString node;
        Role role;
        ObjectID device;
    };
    struct Device
    {
        ObjectID id;
        ObjectID source;
        ObjectID sink;
    };

    std::vector<ObjectID> refreshDevices();
    const Entry *entry(ObjectID object) const;
    QString justAnswer(const QString &node);

    const QString m_sysRoot;
    const QString m_devRoot;
    const std::shared_ptr<VideoDeviceIo> m_io;
    std::map<QString, Device> m_devicesByNode;
    std::map<ObjectID, Entry> m_objects;
    ObjectID m_nextObject = 16;
    std::map<QString, std::weak_ptr<LoopbackSink>> m_sinks;
};

} // namespace vistrel::vcam
