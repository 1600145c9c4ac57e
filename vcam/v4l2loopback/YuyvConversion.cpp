#include "vcam/v4l2loopback/YuyvConversion.h"

#include "vcam/PixelBuffer.h"

#include <libyuv/convert_from_argb.h>

namespace vistrel::vcam {

void convertBgraToYuyv(const PixelBuffer &bgra, std::uint8_t *yuyv)
{
    // libyuv's "ARGB" is the little-endian word A,R,G,B: bytes B,G,R,A in memory.
    libyuv::ARGBToYUY2(bgra.baseAddress(), static_cast<int>(bgra.bytesPerRow()), yuyv, bgra.width() * 2,
                       bgra.width(), bgra.height());
}

void fillYuyvBlack(std::uint8_t *yuyv, int width, int height)
{
    const std::size_t pixelPairs = yuyvFrameBytes(width, height) / 4;
    for (std::size_t i = 0; i < pixelPairs; ++i) {
        yuyv[4 * i] = 16;
        yuyv[4 * i + 1] = 128;
        yuyv[4 * i + 2] = 16;
        yuyv[4 * i + 3] = 128;
    }
}

} // namespace vistrel::vcam
