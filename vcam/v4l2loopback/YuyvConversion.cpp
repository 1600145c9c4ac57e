#include "vcam/v4l2loopback/YuyvConversion.h"

#include "vcam/PixelBuffer.h"

#include <libyuv/convert_from_argb.h>
#include <libyuv/planar_functions.h>

namespace vistrel::vcam {

void BgraToYuyvConverter::convert(const PixelBuffer &bgra, std::uint8_t *yuyv)
{
    const int width = bgra.width();
    const int chromaWidth = (width + 1) / 2;
    m_row.resize(static_cast<std::size_t>(width + 2 * chromaWidth)); // once: the size never changes
    std::uint8_t *y = m_row.data();
    std::uint8_t *u = y + width;
    std::uint8_t *v = u + chromaWidth;
    const int bgraStride = static_cast<int>(bgra.bytesPerRow());
    const int yuyvStride = width * 2;
    const std::uint8_t *bgraRow = bgra.baseAddress();
    for (int row = 0; row < bgra.height(); ++row) {
        // libyuv's "ARGB" is the little-endian word A,R,G,B: bytes B,G,R,A in memory.
        libyuv::ARGBToI422(bgraRow, bgraStride, y, width, u, chromaWidth, v, chromaWidth, width, 1);
        libyuv::I422ToYUY2(y, width, u, chromaWidth, v, chromaWidth, yuyv, yuyvStride, width, 1);
        bgraRow += bgraStride;
        yuyv += yuyvStride;
    }
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
