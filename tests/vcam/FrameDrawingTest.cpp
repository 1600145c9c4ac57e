#include "vcam/FrameDrawing.h"
#include "vcam/PixelBuffer.h"

#include <QPainter>
#include <QRandomGenerator>
#include <cstring>
#include <vector>
#include <gtest/gtest.h>

namespace vistrel::vcam {
namespace {

// Noise, so that any pixel taken from the wrong place shows.
QImage noise(int width, int height, QImage::Format format)
{
    QImage picture(width, height, QImage::Format_RGB32);
    QRandomGenerator random(width * 7919 + height);
    for (int y = 0; y < height; ++y) {
        auto *row = reinterpret_cast<QRgb *>(picture.scanLine(y));
        for (int x = 0; x < width; ++x)
            row[x] = 0xff000000u | (random.generate() & 0xffffffu);
    }
    return picture.convertToFormat(format);
}

// What drawing means, done the general way: QPainter, nearest pixel, whole frame.
QImage drawnByQPainter(const QImage &picture, int width, int height)
{
    QImage frame(width, height, QImage::Format_ARGB32_Premultiplied);
    frame.fill(Qt::black);
    QPainter painter(&frame);
    painter.setRenderHint(QPainter::SmoothPixmapTransform, false);
    painter.setCompositionMode(QPainter::CompositionMode_Source);
    painter.drawImage(QRectF(0, 0, width, height), picture);
    return frame;
}

// The fast stretch must take each frame pixel from the same picture pixel as QPainter's
// nearest-pixel drawing: camera sizes up, down and equal, odd sizes, and a picture with
// padded rows. (Qt's scaler for premultiplied pictures rounds some odd ratios one source
// row differently from its RGB32 one; camera sizes agree in both.)
TEST(FrameDrawingTest, FastStretchTakesThePixelsQPainterTakes)
{
    const std::vector<QSize> cameraSizes = {{640, 480}, {1920, 1080}, {1280, 720}, {160, 120}};
    std::vector<QSize> oddSizes = cameraSizes;
    oddSizes.insert(oddSizes.end(), {{333, 199}, {2000, 1001}, {1281, 719}});
    for (QImage::Format format : {QImage::Format_RGB32, QImage::Format_ARGB32_Premultiplied}) {
        for (const QSize size : format == QImage::Format_RGB32 ? oddSizes : cameraSizes) {
            SCOPED_TRACE(testing::Message() << size.width() << "x" << size.height() << " format " << format);
            const QImage picture = noise(size.width(), size.height(), format);
            PixelBuffer buffer(1280, 720);
            drawFrame(buffer, picture, false);
            const QImage expected = drawnByQPainter(picture, 1280, 720);
            int differing = 0;
            for (int y = 0; y < 720; ++y)
                differing += std::memcmp(buffer.image().constScanLine(y), expected.constScanLine(y), 1280 * 4) != 0;
            EXPECT_EQ(differing, 0) << "rows differing from QPainter's drawing";
        }
    }

    // A picture whose rows are longer than its pixels (a decoder's padded stride).
    const QImage wide = noise(1000, 500, QImage::Format_RGB32);
    const QImage padded(wide.constBits(), 960, 500, wide.bytesPerLine(), QImage::Format_RGB32);
    PixelBuffer buffer(1280, 720);
    drawFrame(buffer, padded, false);
    EXPECT_EQ(buffer.image(), drawnByQPainter(padded, 1280, 720));
}

// Pictures the fast stretch does not take (mirrored, other formats, nothing at all) are
// still drawn, and a null picture leaves the buffer as it was.
TEST(FrameDrawingTest, OtherPicturesTakeTheGeneralPath)
{
    const QImage picture = noise(320, 240, QImage::Format_RGB32);
    PixelBuffer mirrored(1280, 720);
    drawFrame(mirrored, picture, true);
    EXPECT_EQ(mirrored.image().pixel(1279, 0), picture.pixel(0, 0));
    EXPECT_EQ(mirrored.image().pixel(0, 719), picture.pixel(319, 239));

    const QImage rgb888 = picture.convertToFormat(QImage::Format_RGB888);
    PixelBuffer converted(1280, 720);
    drawFrame(converted, rgb888, false);
    EXPECT_EQ(converted.image(), drawnByQPainter(rgb888, 1280, 720));

    PixelBuffer untouched(1280, 720);
    untouched.image().fill(QColor(10, 20, 30));
    drawFrame(untouched, QImage(), false);
    EXPECT_EQ(untouched.image().pixel(640, 360), qRgb(10, 20, 30));
}

} // namespace
} // namespace vistrel::vcam
