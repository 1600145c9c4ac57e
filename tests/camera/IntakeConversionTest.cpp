// The capture output's own conversion of camera YUV into the picture format, checked
// against GStreamer's videoconvert on the same frames.
#include "camera/CaptureSession.h"
#include "camera/SampleImage.h"

#include <QImage>
#include <chrono>
#include <condition_variable>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>
#include <mutex>
#include <utility>
#include <vector>

namespace vistrel::camera {
namespace {

// Smooth in both directions with saturated corners, so subsampled chroma stays close
// and a wrong matrix, range or chroma order shows as large errors.
QImage gradient(int width, int height)
{
    QImage picture(width, height, QImage::Format_RGB32);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const int red = 255 * x / (width - 1);
            const int green = 255 * y / (height - 1);
            picture.setPixel(x, y, qRgb(red, green, 255 - (red + green) / 2));
        }
    return picture;
}

using SamplePtr = std::shared_ptr<GstSample>;

SamplePtr convertSample(GstSample *sample, const QByteArray &caps)
{
    GstCaps *to = gst_caps_from_string(caps.constData());
    SamplePtr converted(gst_video_convert_sample(sample, to, 5 * GST_SECOND, nullptr), gst_sample_unref);
    gst_caps_unref(to);
    return converted;
}

// The picture as a camera frame in `format` with `colorimetry`, made by GStreamer.
SamplePtr cameraFrame(const QImage &picture, const char *format, const char *colorimetry)
{
    GstVideoInfo info;
    gst_video_info_set_format(&info, GST_VIDEO_FORMAT_BGRx, picture.width(), picture.height());
    GstCaps *caps = gst_video_info_to_caps(&info);
    GstBuffer *buffer = gst_buffer_new_memdup(picture.constBits(), picture.sizeInBytes()); // RGB32 rows: width * 4
    const SamplePtr bgrx(gst_sample_new(buffer, caps, nullptr, nullptr), gst_sample_unref);
    gst_buffer_unref(buffer);
    gst_caps_unref(caps);
    return convertSample(bgrx.get(), QByteArray("video/x-raw,format=") + format + ",colorimetry=" + colorimetry);
}

// What GStreamer's videoconvert makes of a camera frame in the picture format.
QImage videoconvertPicture(const SamplePtr &frame)
{
    const SamplePtr converted = convertSample(frame.get(), "video/x-raw,format=BGRx");
    return converted ? imageFromSample(converted.get()).copy() : QImage();
}

// A camera source feeding the real VideoDataOutput; the last delivered sample is kept.
class Intake
{
public:
    explicit Intake(GstCaps *caps, QSize largestPicture = {}) : m_output(std::make_shared<VideoDataOutput>())
    {
        m_output->setLargestPictureSize(largestPicture);
        m_pipeline = gst_pipeline_new(nullptr);
        m_source = gst_element_factory_make("appsrc", nullptr);
        g_object_set(m_source, "caps", caps, "format", GST_FORMAT_TIME, nullptr);
        gst_bin_add_many(GST_BIN(m_pipeline), m_source, m_output->element(), nullptr);
        gst_element_link(m_source, m_output->element());
        m_output->setSampleBufferDelegate([this](GstSample *sample) {
            std::lock_guard lock(m_mutex);
            m_sample = SamplePtr(gst_sample_ref(sample), gst_sample_unref);
            m_arrived.notify_one();
        });
        gst_element_set_state(m_pipeline, GST_STATE_PLAYING);
    }
    ~Intake()
    {
        m_output->setSampleBufferDelegate(nullptr);
        gst_element_set_state(m_pipeline, GST_STATE_NULL);
        gst_object_unref(m_pipeline);
    }

    void setCaps(GstCaps *caps) { g_object_set(m_source, "caps", caps, nullptr); }

    SamplePtr deliver(const SamplePtr &frame, std::chrono::milliseconds timeout = std::chrono::seconds(5))
    {
        std::unique_lock lock(m_mutex);
        m_sample.reset();
        gst_app_src_push_buffer(GST_APP_SRC(m_source), gst_buffer_ref(gst_sample_get_buffer(frame.get())));
        m_arrived.wait_for(lock, timeout, [this] { return m_sample != nullptr; });
        return std::move(m_sample);
    }

private:
    std::shared_ptr<VideoDataOutput> m_output;
    GstElement *m_pipeline;
    GstElement *m_source;
    std::mutex m_mutex;
    std::condition_variable m_arrived;
    SamplePtr m_sample;
};

int largestChannelError(const QImage &a, const QImage &b)
{
    int largest = 0;
    for (int y = 0; y < a.height(); ++y)
        for (int x = 0; x < a.width(); ++x) {
            const QRgb p = a.pixel(x, y), q = b.pixel(x, y);
            largest = std::max(
                {largest, std::abs(qRed(p) - qRed(q)), std::abs(qGreen(p) - qGreen(q)), std::abs(qBlue(p) - qBlue(q))});
        }
    return largest;
}

// Full-range BT.601, as JPEG decoders label their frames.
constexpr const char *kFullRange601 = "1:4:0:0";

// Every layout converted here, in BT.601 limited and full range (packed layouts take
// their own path for it); other matrices go through GStreamer's converter, one row for
// all. Even and odd sizes, and shrunk to the largest picture asked by 3:2, 3:1, 2:1,
// another ratio (5:4), or in height only.
TEST(IntakeConversionTest, CameraYuvBecomesThePictureItWasMadeFrom)
{
    const struct
    {
        const char *format;
        const char *colorimetry;
        int tolerance; // libyuv's 6-bit BT.601 tables stray up to 7 levels at saturated ends
    } layouts[] = {{"YUY2", "bt601", 7}, {"YUY2", kFullRange601, 7}, {"UYVY", "bt601", 7}, {"NV12", "bt601", 7},
                   {"NV12", "bt709", 1}, {"NV21", "bt601", 7},       {"I420", "bt601", 7}, {"YV12", "bt601", 7},
                   {"Y42B", "bt601", 7}, {"Y444", kFullRange601, 7}};
    const QSize largest(160, 90);
    const std::pair<QSize, QSize> sizes[] = {{{256, 192}, {}},      {{257, 193}, {}},     {{240, 135}, largest},
                                             {{480, 270}, largest}, {{320, 60}, largest}, {{150, 200}, largest},
                                             {{200, 100}, largest}};
    for (const auto &[size, bound] : sizes) {
        const QImage picture = gradient(size.width(), size.height());
        const QSize expected = bound.isEmpty() ? size : size.boundedTo(bound);
        for (const auto &layout : layouts) {
            SCOPED_TRACE(testing::Message()
                         << layout.format << " " << layout.colorimetry << " " << size.width() << "x" << size.height());
            const SamplePtr frame = cameraFrame(picture, layout.format, layout.colorimetry);
            ASSERT_TRUE(frame);
            Intake intake(gst_sample_get_caps(frame.get()), bound);
            const SamplePtr delivered = intake.deliver(frame);
            ASSERT_TRUE(delivered);
            const QImage converted = imageFromSample(delivered.get());
            ASSERT_EQ(converted.size(), expected);
            const QImage reference =
                videoconvertPicture(frame).scaled(expected, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
            // Shrunk, the area means may land a little from Qt's own: a few levels of the
            // gradient. A wrong row, plane, stride or chroma order is off by a hundred.
            EXPECT_LE(largestChannelError(converted, reference), bound.isEmpty() ? layout.tolerance : 12);
        }
    }
}

// Luma-like level of a picture pixel (its three channels are close: the pictures below
// are grey).
int level(QRgb pixel)
{
    return qGreen(pixel);
}

// The mean level, and the spread, of a picture's pixels in [from, to) rows and columns.
struct Levels
{
    double mean = 0;
    int lowest = 255, highest = 0;
};

Levels levels(const QImage &picture, QRect area)
{
    Levels found;
    double sum = 0;
    for (int y = area.top(); y <= area.bottom(); ++y)
        for (int x = area.left(); x <= area.right(); ++x) {
            const int value = level(picture.pixel(x, y));
            sum += value;
            found.lowest = std::min(found.lowest, value);
            found.highest = std::max(found.highest, value);
        }
    found.mean = sum / (area.width() * area.height());
    return found;
}

// Shrinking takes the mean of the pixels each picture pixel covers, at the ratios shrunk
// a row at a time and at the others alike: one-pixel stripes turn grey rather than into
// stripes of another width, stripes of any period keep their mean level (a picture that
// picked pixels would keep one stripe in two of a three-pixel period, not one in three),
// and the outermost rows and columns still count. A size kept passes unchanged.
TEST(IntakeConversionTest, ShrinkingKeepsTheMeanAndTheEdgesAndAKeptSizeIsUntouched)
{
    const QSize largest(320, 180);
    const QSize sizes[] = {{480, 270}, {640, 360}, {960, 540}, {400, 225}, {320, 270}, {320, 180}};
    const char *formats[] = {"YUY2", "UYVY", "NV12", "NV21", "I420", "Y444"};
    // White columns or rows, `period` apart; and a white border round black.
    const auto stripes = [](QSize size, int period, bool columns) {
        QImage picture(size, QImage::Format_RGB32);
        for (int y = 0; y < size.height(); ++y)
            for (int x = 0; x < size.width(); ++x)
                picture.setPixel(x, y, (columns ? x : y) % period == 0 ? qRgb(255, 255, 255) : qRgb(0, 0, 0));
        return picture;
    };
    const auto border = [](QSize size) {
        QImage picture(size, QImage::Format_RGB32);
        picture.fill(Qt::black);
        for (int x = 0; x < size.width(); ++x)
            picture.setPixel(x, 0, qRgb(255, 255, 255)), picture.setPixel(x, size.height() - 1, qRgb(255, 255, 255));
        for (int y = 0; y < size.height(); ++y)
            picture.setPixel(0, y, qRgb(255, 255, 255)), picture.setPixel(size.width() - 1, y, qRgb(255, 255, 255));
        return picture;
    };
    const auto deliver = [&](const QImage &picture, const char *format) {
        const SamplePtr frame = cameraFrame(picture, format, "bt601");
        Intake intake(gst_sample_get_caps(frame.get()), largest);
        const SamplePtr delivered = intake.deliver(frame);
        return delivered ? imageFromSample(delivered.get()).copy() : QImage();
    };
    for (const QSize size : sizes) {
        for (const char *format : formats) {
            SCOPED_TRACE(testing::Message() << format << " " << size.width() << "x" << size.height());
            for (const bool columns : {true, false}) {
                const double ratio =
                    columns ? double(size.width()) / largest.width() : double(size.height()) / largest.height();
                const QImage fine = deliver(stripes(size, 2, columns), format);
                ASSERT_EQ(fine.size(), largest);
                const Levels fineLevels = levels(fine, fine.rect());
                // Kept: the stripes themselves (0 and 255 back from studio-range YUV).
                // Shrunk by 3:2 or more: grey, within a third of the black-to-white step of
                // the mean. (Shrunk by less, as 5:4, a pixel's area still holds most of
                // one stripe.)
                const char *axis = columns ? "columns" : "rows";
                if (ratio == 1) {
                    EXPECT_GE(fineLevels.highest - fineLevels.lowest, 240) << axis;
                } else if (ratio >= 1.5) {
                    EXPECT_LE(fineLevels.highest - fineLevels.lowest, 100) << axis;
                }
                EXPECT_NEAR(fineLevels.mean, 127.5, 4) << axis;

                const Levels third = levels(deliver(stripes(size, 3, columns), format), QRect(QPoint(), largest));
                EXPECT_NEAR(third.mean, 85, 4) << axis << " every third";
            }

            // Each edge row and column weighs at least a third in the picture's edge row or
            // column; the inside stays black.
            const QImage framed = deliver(border(size), format);
            ASSERT_EQ(framed.size(), largest);
            const int w = largest.width(), h = largest.height();
            for (const QRect edge :
                 {QRect(0, 0, w, 1), QRect(0, h - 1, w, 1), QRect(0, 0, 1, h), QRect(w - 1, 0, 1, h)})
                EXPECT_GE(levels(framed, edge).lowest, 80) << edge.x() << "," << edge.y();
            EXPECT_LE(levels(framed, QRect(2, 2, w - 4, h - 4)).highest, 2);
        }
    }
}

// A camera already in the picture format is wrapped as it is.
TEST(IntakeConversionTest, PictureFormatPassesAsItIs)
{
    const SamplePtr bgrx = cameraFrame(gradient(32, 24), "BGRx", "sRGB");
    ASSERT_TRUE(bgrx);
    Intake intake(gst_sample_get_caps(bgrx.get()));
    const SamplePtr delivered = intake.deliver(bgrx);
    ASSERT_TRUE(delivered);
    EXPECT_EQ(imageFromSample(delivered.get()).constBits(), imageFromSample(bgrx.get()).constBits());
}

// With three pictures held a new frame is dropped rather than a fourth 8 MB buffer
// made, and frames flow again once one is let go. A camera that changes size
// mid-stream gets pictures of the new size.
TEST(IntakeConversionTest, HeldPicturesBoundTheBuffersAndNewSizesAreFollowed)
{
    const SamplePtr first = cameraFrame(gradient(64, 48), "NV12", "bt601");
    const SamplePtr second = cameraFrame(gradient(256, 192), "NV12", "bt601");
    Intake intake(gst_sample_get_caps(first.get()));
    std::vector<QImage> held;
    for (int i = 0; i < 3; ++i) {
        const SamplePtr delivered = intake.deliver(first);
        ASSERT_TRUE(delivered);
        held.push_back(imageFromSample(delivered.get()));
    }
    EXPECT_FALSE(intake.deliver(first, std::chrono::milliseconds(300)));
    held.erase(held.begin());
    EXPECT_TRUE(intake.deliver(first));

    intake.setCaps(gst_sample_get_caps(second.get()));
    const SamplePtr resized = intake.deliver(second);
    ASSERT_TRUE(resized);
    const QImage picture = imageFromSample(resized.get());
    ASSERT_EQ(picture.size(), QSize(256, 192));
    EXPECT_LE(largestChannelError(picture, videoconvertPicture(second)), 7);
}

} // namespace
} // namespace vistrel::camera
