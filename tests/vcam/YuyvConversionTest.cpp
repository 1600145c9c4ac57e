#include "vcam/v4l2loopback/YuyvConversion.h"
#include "vcam/PixelBuffer.h"

#include <QColor>
#include <cmath>
#include <gtest/gtest.h>
#include <vector>

namespace vistrel::vcam {
namespace {

// Studio-swing BT.601 from the standard's own coefficients, as readers decode it.
struct Yuv
{
    double y, u, v;
};

Yuv bt601(QRgb colour)
{
    const double r = qRed(colour), g = qGreen(colour), b = qBlue(colour);
    return {16 + (65.481 * r + 128.553 * g + 24.966 * b) / 255, 128 + (-37.797 * r - 74.203 * g + 112.0 * b) / 255,
            128 + (112.0 * r - 93.786 * g - 18.214 * b) / 255};
}

// YUYV bytes of one row: Y0 U Y1 V for each pair of pixels.
struct YuyvFrame
{
    int width;
    std::vector<std::uint8_t> bytes;
    int y(int row, int column) const { return bytes[std::size_t(row) * width * 2 + std::size_t(column) * 2]; }
    int u(int row, int column) const { return bytes[std::size_t(row) * width * 2 + std::size_t(column / 2) * 4 + 1]; }
    int v(int row, int column) const { return bytes[std::size_t(row) * width * 2 + std::size_t(column / 2) * 4 + 3]; }
};

void paintRow(PixelBuffer &buffer, int row, const std::vector<QRgb> &pattern)
{
    auto *pixels = reinterpret_cast<QRgb *>(buffer.image().scanLine(row));
    for (int x = 0; x < buffer.width(); ++x)
        pixels[x] = pattern[std::size_t(x) % pattern.size()];
}

YuyvFrame convertWith(BgraToYuyvConverter &converter, const PixelBuffer &buffer)
{
    YuyvFrame frame{buffer.width(), std::vector<std::uint8_t>(yuyvFrameBytes(buffer.width(), buffer.height()), 0)};
    converter.convert(buffer, frame.bytes.data());
    return frame;
}

constexpr double kTolerance = 1.6; // libyuv's fixed-point steps, rounded

const std::vector<QRgb> kSolids = {qRgb(255, 255, 255), qRgb(0, 0, 0),       qRgb(255, 0, 0),    qRgb(0, 255, 0),
                                   qRgb(0, 0, 255),     qRgb(128, 128, 128), qRgb(250, 200, 40), qRgb(30, 90, 160)};

// Every row of the device's own frame size, each a different colour: each lands on its
// own row with the colour readers expect, down to the last.
TEST(YuyvConversionTest, EachRowCarriesItsOwnColourInStudioSwingBt601)
{
    PixelBuffer buffer(1280, 720);
    for (int row = 0; row < buffer.height(); ++row)
        paintRow(buffer, row, {kSolids[std::size_t(row) % kSolids.size()]});
    BgraToYuyvConverter converter;
    const YuyvFrame frame = convertWith(converter, buffer);

    for (int row = 0; row < buffer.height(); ++row) {
        const Yuv want = bt601(kSolids[std::size_t(row) % kSolids.size()]);
        for (int column : {0, 1, 638, 1279}) {
            SCOPED_TRACE(testing::Message() << "row " << row << " column " << column);
            EXPECT_NEAR(frame.y(row, column), want.y, kTolerance);
            EXPECT_NEAR(frame.u(row, column), want.u, kTolerance);
            EXPECT_NEAR(frame.v(row, column), want.v, kTolerance);
        }
    }
}

// 4:2:2: each pixel keeps its own luma, a pair shares the mean of its two chromas, and
// nothing is shared between rows (a row under a very different one keeps its chroma).
TEST(YuyvConversionTest, PairsShareChromaAndRowsDoNot)
{
    const QRgb red = qRgb(255, 0, 0), blue = qRgb(0, 0, 255), green = qRgb(0, 255, 0);
    PixelBuffer buffer(16, 4);
    paintRow(buffer, 0, {red, blue});
    paintRow(buffer, 1, {green});
    paintRow(buffer, 2, {blue, red});
    paintRow(buffer, 3, {red});
    BgraToYuyvConverter converter;
    const YuyvFrame frame = convertWith(converter, buffer);

    const Yuv r = bt601(red), b = bt601(blue), g = bt601(green);
    for (int pair = 0; pair < 8; ++pair) {
        SCOPED_TRACE(testing::Message() << "pair " << pair);
        const int x = 2 * pair;
        EXPECT_NEAR(frame.y(0, x), r.y, kTolerance);
        EXPECT_NEAR(frame.y(0, x + 1), b.y, kTolerance);
        EXPECT_NEAR(frame.u(0, x), (r.u + b.u) / 2, kTolerance);
        EXPECT_NEAR(frame.v(0, x), (r.v + b.v) / 2, kTolerance);
        EXPECT_NEAR(frame.y(2, x), b.y, kTolerance);
        EXPECT_NEAR(frame.y(2, x + 1), r.y, kTolerance);
        EXPECT_NEAR(frame.u(1, x), g.u, kTolerance);
        EXPECT_NEAR(frame.v(1, x), g.v, kTolerance);
        EXPECT_NEAR(frame.u(3, x), r.u, kTolerance);
        EXPECT_NEAR(frame.v(3, x), r.v, kTolerance);
    }

    // The same converter serves the next frame: nothing of this one shows through.
    paintRow(buffer, 0, {green});
    const YuyvFrame next = convertWith(converter, buffer);
    EXPECT_NEAR(next.y(0, 1), g.y, kTolerance);
    EXPECT_NEAR(next.u(0, 0), g.u, kTolerance);
    EXPECT_NEAR(next.v(0, 0), g.v, kTolerance);
}

} // namespace
} // namespace vistrel::vcam
