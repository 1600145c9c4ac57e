#pragma once
#include "vcam/FourCharCode.h"

#include <QString>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <vector>

namespace vistrel::vcam {

class SimpleQueue;

using ObjectID = std::uint32_t;
using Status = int; // 0 = success

inline constexpr ObjectID kSystemObject = 1;

struct PropertyAddress
{
    FourCharCode selector;
    FourCharCode scope;
    std::uint32_t element;
};

enum class CaptureDeviceType { BuiltInWideAngleCamera, ExternalUnknown };

// A camera as the capture world sees it.
struct CaptureDevice
{
    QString localizedName;
    QString uniqueID;
    CaptureDeviceType deviceType;
};

// The virtual camera's hardware layer: objects (the system object, devices, streams)
// with properties, and the sink stream's buffer queue.
//
// Properties are typed: object lists (the system object's devices, a device's streams)
// and strings (a device's unique identifier, a stream's "just"). A read answers nothing
// when the object has no property of that kind at the address. Statuses are returned,
// never thrown.
class VirtualCameraSystem
{
public:
    virtual ~VirtualCameraSystem() = default;

    virtual bool hasProperty(ObjectID object, const PropertyAddress &address) = 0;
    virtual bool isPropertySettable(ObjectID object, const PropertyAddress &address) = 0;
    virtual std::optional<std::vector<ObjectID>> objectListProperty(ObjectID object,
                                                                    const PropertyAddress &address) = 0;
    virtual std::optional<QString> stringProperty(ObjectID object, const PropertyAddress &address) = 0;
    virtual Status setStringProperty(ObjectID object, const PropertyAddress &address, const QString &value) = 0;

    // Capture devices of the given types, in the system's order.
    virtual std::vector<CaptureDevice> captureDevices(std::initializer_list<CaptureDeviceType> types) = 0;
    // Why a capture input for this device cannot be made; empty when it can.
    virtual QString captureInputError(const CaptureDevice &device) = 0;

    // The sink stream's buffer queue. queueAltered runs on a thread of the system's
    // choosing each time the consumer has taken a buffer.
    virtual Status copyBufferQueue(ObjectID stream, std::function<void()> queueAltered,
                                   std::shared_ptr<SimpleQueue> *queue) = 0;
    virtual Status startStream(ObjectID device, ObjectID stream) = 0;
};

} // namespace vistrel::vcam
