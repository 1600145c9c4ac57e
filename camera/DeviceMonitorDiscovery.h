#pragma once
#include "camera/CameraDevice.h"

namespace vistrel::camera {

// The system's cameras as GStreamer's device monitor lists them ("Video/Source"
// devices of every device provider: V4L2, PipeWire, libcamera...), in the monitor's
// order. The name is the device's display name; the unique identifier is its V4L2
// device node or its PipeWire object serial when the device tells them.
class DeviceMonitorDiscovery final : public DeviceDiscovery
{
public:
    std::vector<CameraDevice> videoDevices() override;
};

} // namespace vistrel::camera
