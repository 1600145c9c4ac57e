#include "TestCameraProvider.h"

#include <QByteArray>
#include <gst/gst.h>
#include <mutex>

namespace vistrel::test {
namespace {

// --- the device ------------------------------------------------------------------

struct TestCamera
{
    GstDevice parent;
    gchar *sourceDescription;
};

struct TestCameraClass
{
    GstDeviceClass parentClass;
};

G_DEFINE_TYPE(TestCamera, test_camera, GST_TYPE_DEVICE)

GstElement *testCameraCreateElement(GstDevice *device, const gchar *name)
{
    auto *camera = reinterpret_cast<TestCamera *>(device);
    GstElement *element = gst_parse_bin_from_description(camera->sourceDescription, TRUE, nullptr);
    if (element && name)
        gst_object_set_name(GST_OBJECT(element), name);
    return element;
}

void testCameraFinalize(GObject *object)
{
    g_free(reinterpret_cast<TestCamera *>(object)->sourceDescription);
    G_OBJECT_CLASS(test_camera_parent_class)->finalize(object);
}

void test_camera_class_init(TestCameraClass *klass)
{
    GST_DEVICE_CLASS(klass)->create_element = testCameraCreateElement;
    G_OBJECT_CLASS(klass)->finalize = testCameraFinalize;
}

void test_camera_init(TestCamera *) {}

GstDevice *makeCamera(const char *name, const char *sourceDescription)
{
    GstCaps *caps = gst_caps_from_string("video/x-raw");
    GstStructure *properties = gst_structure_new("properties", "device.path", G_TYPE_STRING,
                                                 (QByteArray("/dev/test-camera/") + name).constData(), nullptr);
    auto *camera =
        static_cast<TestCamera *>(g_object_new(test_camera_get_type(), "display-name", name, "device-class",
                                               "Video/Source", "caps", caps, "properties", properties, nullptr));
    gst_caps_unref(caps);
    gst_structure_free(properties);
    camera->sourceDescription = g_strdup(sourceDescription);
    return GST_DEVICE(camera);
}

QByteArray solidColourSource(const char *pattern)
{
    return QByteArray("videotestsrc is-live=true pattern=") + pattern
        + " ! capsfilter caps=\"video/x-raw,format=I420,width=160,height=120,framerate=30/1\"";
}

// --- the provider ----------------------------------------------------------------

struct TestCameraProviderObject
{
    GstDeviceProvider parent;
};

struct TestCameraProviderObjectClass
{
    GstDeviceProviderClass parentClass;
};

G_DEFINE_TYPE(TestCameraProviderObject, test_camera_provider, GST_TYPE_DEVICE_PROVIDER)

GList *providerProbe(GstDeviceProvider *)
{
    GList *devices = nullptr;
    devices = g_list_append(devices, makeCamera("Vistrel", solidColourSource("white")));
    devices = g_list_append(devices, makeCamera("Studio Camera", solidColourSource("red")));
    devices = g_list_append(devices, makeCamera("Studio Camera", solidColourSource("blue")));
    devices = g_list_append(devices, makeCamera("Vistrel Camera HD", solidColourSource("green")));
    devices = g_list_append(devices, makeCamera("Unplugged Camera", "v4l2src device=/dev/vistrel-unplugged-camera"));
    devices = g_list_append(devices, makeCamera("Moving Camera", solidColourSource("ball")));
    return devices;
}

void test_camera_provider_class_init(TestCameraProviderObjectClass *klass)
{
    GST_DEVICE_PROVIDER_CLASS(klass)->probe = providerProbe;
    gst_device_provider_class_set_static_metadata(GST_DEVICE_PROVIDER_CLASS(klass), "Test camera provider",
                                                  "Source/Video", "Solid-colour test cameras", "Vistrel");
}

void test_camera_provider_init(TestCameraProviderObject *) {}

gboolean registerFeatures(GstPlugin *plugin)
{
    return gst_device_provider_register(plugin, "vistreltestcameras", GST_RANK_PRIMARY,
                                        test_camera_provider_get_type());
}

} // namespace

void TestCameraProvider::registerOnce()
{
    static std::once_flag once;
    std::call_once(once, [] {
        gst_plugin_register_static(GST_VERSION_MAJOR, GST_VERSION_MINOR, "vistreltestcameras",
                                   "Solid-colour test cameras", registerFeatures, "1.0", "LGPL", "vistrel", "vistrel",
                                   "https://vistrel.app");
    });
}

} // namespace vistrel::test
