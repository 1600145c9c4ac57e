#include "camera/DeviceMonitorDiscovery.h"

#include <gst/gst.h>

namespace vistrel::camera {
namespace {

QString deviceProperty(GstDevice *device, const char *key)
{
    GstStructure *properties = gst_device_get_properties(device);
    if (!properties)
        return {};
    QString value;
    if (const GValue *field = gst_structure_get_value(properties, key)) {
        if (G_VALUE_HOLDS_STRING(field))
            value = QString::fromUtf8(g_value_get_string(field));
        else if (gchar *text = gst_value_serialize(field)) {
            value = QString::fromUtf8(text);
            g_free(text);
        }
    }
    gst_structure_free(properties);
    return value;
}

QString uniqueIdentifier(GstDevice *device)
{
    for (const char *key : {"api.v4l2.path", "device.path", "object.serial", "device.serial"}) {
        const QString value = deviceProperty(device, key);
        if (!value.isEmpty())
            return value;
    }
    gchar *name = gst_object_get_name(GST_OBJECT(device));
    QString fallback = QString::fromUtf8(name);
    g_free(name);
    return fallback;
}

} // namespace

std::vector<CameraDevice> DeviceMonitorDiscovery::videoDevices()
{
    GstDeviceMonitor *monitor = gst_device_monitor_new();
    gst_device_monitor_add_filter(monitor, "Video/Source", nullptr);
    std::vector<CameraDevice> cameras;
    if (gst_device_monitor_start(monitor)) {
        GList *devices = gst_device_monitor_get_devices(monitor);
        for (GList *item = devices; item; item = item->next) {
            auto *device = GST_DEVICE(item->data); // the list owns one reference, handed over here
            gchar *displayName = gst_device_get_display_name(device);
            CameraDevice camera;
            camera.localizedName = QString::fromUtf8(displayName);
            camera.uniqueID = uniqueIdentifier(device);
            camera.device = std::shared_ptr<GstDevice>(device, [](GstDevice *d) { gst_object_unref(d); });
            g_free(displayName);
            cameras.push_back(std::move(camera));
        }
        g_list_free(devices);
        gst_device_monitor_stop(monitor);
    }
    gst_object_unref(monitor);
    return cameras;
}

} // namespace vistrel::camera
