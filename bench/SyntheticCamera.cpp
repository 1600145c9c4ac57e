#include "bench/SyntheticCamera.h"

#include <QFile>
#include <cstring>
#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <optional>

namespace vistrel::bench {
namespace {

// --- a GstDevice that makes its source from a description --------------------------

struct DescribedDevice
{
    GstDevice parent;
    gchar *description;
    GstElement *lastElement; // strong reference
};

struct DescribedDeviceClass
{
    GstDeviceClass parentClass;
};

G_DEFINE_TYPE(DescribedDevice, described_device, GST_TYPE_DEVICE)

GstElement *describedDeviceCreateElement(GstDevice *device, const gchar *name)
{
    auto *self = reinterpret_cast<DescribedDevice *>(device);
    GError *error = nullptr;
    // One element stands as it is (so an appsrc can be fed); a chain becomes a bin
    // with its open end as the source pad, as a camera's source bin would be.
    GstElement *element = std::strchr(self->description, '!')
        ? gst_parse_bin_from_description(self->description, TRUE, &error)
        : gst_parse_launch(self->description, &error);
    if (error) {
        g_printerr("synthetic camera: %s\n", error->message);
        g_clear_error(&error);
        g_clear_object(&element);
        return nullptr;
    }
    if (name)
        gst_object_set_name(GST_OBJECT(element), name);
    gst_clear_object(&self->lastElement);
    self->lastElement = GST_ELEMENT(gst_object_ref(element));
    return element;
}

void describedDeviceFinalize(GObject *object)
{
    auto *self = reinterpret_cast<DescribedDevice *>(object);
    g_free(self->description);
    gst_clear_object(&self->lastElement);
    G_OBJECT_CLASS(described_device_parent_class)->finalize(object);
}

void described_device_class_init(DescribedDeviceClass *klass)
{
    GST_DEVICE_CLASS(klass)->create_element = describedDeviceCreateElement;
    G_OBJECT_CLASS(klass)->finalize = describedDeviceFinalize;
}

void described_device_init(DescribedDevice *self)
{
    self->description = nullptr;
    self->lastElement = nullptr;
}

const char *rawFormat(CameraFormat format)
{
    switch (format) {
    case CameraFormat::YUY2: return "YUY2";
    case CameraFormat::NV12: return "NV12";
    case CameraFormat::I420:
    case CameraFormat::MJPEG: // webcams' MJPEG is YUV; jpegenc keeps 4:2:0 from I420
        return "I420";
    }
    return "I420";
}

SamplePtr adoptSample(GstSample *sample)
{
    return sample ? SamplePtr(sample, gst_sample_unref) : nullptr;
}

struct JpegImage
{
    qsizetype bytes = 0; // from its start of image to its end of image, both included
    int width = 0;
    int height = 0;
};

// The first JPEG at the start of `data`, found by walking its segments: the entropy-coded
// data after a start of scan runs to the next marker that is neither a stuffed 0xFF nor a
// restart. Nothing when the data does not start with a whole JPEG.
std::optional<JpegImage> firstJpeg(const uchar *data, qsizetype size)
{
    if (size < 4 || data[0] != 0xFF || data[1] != 0xD8)
        return std::nullopt;
    JpegImage image;
    qsizetype at = 2;
    while (at + 2 <= size) {
        if (data[at] != 0xFF)
            return std::nullopt;
        const uchar marker = data[at + 1];
        if (marker == 0xFF) { // fill byte before a marker
            ++at;
            continue;
        }
        if (marker == 0xD9) { // end of image
            image.bytes = at + 2;
            return image.width > 0 && image.height > 0 ? std::optional(image) : std::nullopt;
        }
        if (at + 4 > size)
            return std::nullopt;
        const qsizetype length = data[at + 2] << 8 | data[at + 3];
        if (length < 2 || at + 2 + length > size)
            return std::nullopt;
        // A start of frame (C0-CF but for DHT C4, JPG C8 and DAC CC) gives the size.
        if (marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC) {
            if (length < 8)
                return std::nullopt;
            image.height = data[at + 5] << 8 | data[at + 6];
            image.width = data[at + 7] << 8 | data[at + 8];
        }
        at += 2 + length;
        if (marker == 0xDA) { // start of scan
            while (at + 1 < size
                   && !(data[at] == 0xFF && data[at + 1] != 0x00 && (data[at + 1] < 0xD0 || data[at + 1] > 0xD7)))
                ++at;
        }
    }
    return std::nullopt;
}

// What a UVC camera's MJPEG source hands over: one whole JPEG per buffer, image/jpeg caps
// with the size and rate. The JPEG itself says it is full-range BT.601 (JFIF).
SamplePtr readJpegFrame(const QString &path, const FrameKind &kind)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return nullptr;
    const uchar *data = file.size() > 0 ? file.map(0, file.size()) : nullptr;
    if (!data)
        return nullptr;
    const std::optional<JpegImage> image = firstJpeg(data, file.size());
    if (!image || image->width != kind.width || image->height != kind.height)
        return nullptr;
    GstBuffer *buffer = gst_buffer_new_memdup(data, static_cast<gsize>(image->bytes));
    GstCaps *caps = gst_caps_new_simple("image/jpeg", "width", G_TYPE_INT, kind.width, "height", G_TYPE_INT,
                                        kind.height, "framerate", GST_TYPE_FRACTION, 30, 1, "pixel-aspect-ratio",
                                        GST_TYPE_FRACTION, 1, 1, nullptr);
    SamplePtr sample = adoptSample(gst_sample_new(buffer, caps, nullptr, nullptr));
    gst_buffer_unref(buffer);
    gst_caps_unref(caps);
    return sample;
}

} // namespace

const char *formatName(CameraFormat format)
{
    return format == CameraFormat::MJPEG ? "MJPEG" : rawFormat(format);
}

QString kindName(const FrameKind &kind)
{
    return QStringLiteral("%1/%2x%3").arg(QLatin1String(formatName(kind.format))).arg(kind.width).arg(kind.height);
}

// USB (UVC) cameras report their YUV as BT.601 whatever the size; GStreamer would
// otherwise assume BT.709 for HD sizes.
constexpr const char *kCameraColorimetry = "bt601";

SamplePtr makeCameraSample(const FrameKind &kind)
{
    const QByteArray description =
        QStringLiteral("videotestsrc num-buffers=1 pattern=smpte ! video/x-raw,format=%1,width=%2,height=%3,"
                       "framerate=30/1,colorimetry=%5 ! %4 appsink name=out sync=false")
            .arg(QLatin1String(rawFormat(kind.format)))
            .arg(kind.width)
            .arg(kind.height)
            .arg(kind.format == CameraFormat::MJPEG ? QStringLiteral("jpegenc quality=85 !") : QString())
            .arg(QLatin1String(kCameraColorimetry))
            .toUtf8();
    GstElement *pipeline = gst_parse_launch(description.constData(), nullptr);
    if (!pipeline)
        return nullptr;
    GstElement *sink = gst_bin_get_by_name(GST_BIN(pipeline), "out");
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    SamplePtr sample = adoptSample(gst_app_sink_pull_sample(GST_APP_SINK(sink)));
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(sink);
    gst_object_unref(pipeline);
    return sample;
}

SamplePtr readRawFrame(const QString &path, const FrameKind &kind)
{
    if (kind.format == CameraFormat::MJPEG)
        return readJpegFrame(path, kind);
    GstVideoInfo info;
    gst_video_info_set_format(&info, gst_video_format_from_string(rawFormat(kind.format)),
                              static_cast<guint>(kind.width), static_cast<guint>(kind.height));
    gst_video_colorimetry_from_string(&GST_VIDEO_INFO_COLORIMETRY(&info), kCameraColorimetry);
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return nullptr;
    const QByteArray bytes = file.read(static_cast<qint64>(GST_VIDEO_INFO_SIZE(&info)));
    if (bytes.size() != static_cast<qsizetype>(GST_VIDEO_INFO_SIZE(&info)))
        return nullptr;
    GstBuffer *buffer = gst_buffer_new_memdup(bytes.constData(), static_cast<gsize>(bytes.size()));
    GstCaps *caps = gst_video_info_to_caps(&info);
    SamplePtr sample = adoptSample(gst_sample_new(buffer, caps, nullptr, nullptr));
    gst_buffer_unref(buffer);
    gst_caps_unref(caps);
    return sample;
}

SyntheticCamera::SyntheticCamera(const QString &name, const QString &sourceDescription)
{
    GstCaps *caps = gst_caps_from_string("video/x-raw");
    auto *device = static_cast<DescribedDevice *>(g_object_new(described_device_get_type(), "display-name",
                                                               name.toUtf8().constData(), "device-class",
                                                               "Video/Source", "caps", caps, nullptr));
    gst_caps_unref(caps);
    device->description = g_strdup(sourceDescription.toUtf8().constData());
    gst_object_ref_sink(device);
    m_device.localizedName = name;
    m_device.uniqueID = QStringLiteral("/dev/synthetic-camera");
    m_device.device = std::shared_ptr<GstDevice>(GST_DEVICE(device), gst_object_unref);
}

GstElement *SyntheticCamera::lastSource() const
{
    return reinterpret_cast<DescribedDevice *>(m_device.device.get())->lastElement;
}

QString SyntheticCamera::pushSourceDescription()
{
    return QStringLiteral("appsrc format=time is-live=false");
}

} // namespace vistrel::bench
