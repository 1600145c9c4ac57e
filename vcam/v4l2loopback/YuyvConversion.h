#pragma once
#include <cstddef>
#include <cstdint>

namespace vistrel::vcam {

class PixelBuffer;

// Bytes of one YUYV (4:2:2, two bytes per pixel) frame of the given size.
constexpr std::size_t yuyvFrameBytes(int width, int height)
{
    return static_cast<std::size_t>(width) * 2 * static_cast<std::size_t>(height);
}

// Converts a BGRA pixel buffer to packed YUYV (BT.601, limited range) in one pass.
// yuyv must hold yuyvFrameBytes(width, height) bytes; rows are packed.
void convertBgraToYuyv(const PixelBuffer &bgra, std::uint8_t *yuyv);

// One YUYV frame of black (Y=16, U=V=128).
void fillYuyvBlack(std::uint8_t *yuyv, int width, int height);

} // namespace vistrel::vcam
