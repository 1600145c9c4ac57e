#pragma once
#include <QString>
#include <memory>
#include <vector>

typedef struct _GstDevice GstDevice;

namespace vistrel::camera {

// A video capture device as the capture side lists it.
struct CameraDevice
{
    QString localizedName;
    QString uniqueID;                  // device node path (V4L2) or PipeWire object serial
    std::shared_ptr<GstDevice> device; // the GStreamer device, when it came from the monitor
};

// Lists the cameras the system offers, in the system's order.
class DeviceDiscovery
{
public:
    virtual ~DeviceDiscovery() = default;
    virtual std::vector<CameraDevice> videoDevices() = 0;
};

} // namespace vistrel::camera
