#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

namespace vistrel::vcam {

class PixelBuffer;

// Bytes of one YUYV (4:2:2, two bytes per pixel) frame of the given size.
constexpr std::size_t yuyvFrameBytes(int width, int height)
{
    return static_cast<std::size_t>(width) * 2 * static_cast<std::size_t>(height);
}

// Converts BGRA pixel buffers to packed YUYV (BT.601, limited range) in one pass over
// the frame. Each row goes to planar 4:2:2 in a one-row scratch and from there into the
// frame, so the intermediate never leaves the first-level cache and nothing is allocated
// per frame. (libyuv's one-call BGRA->YUYV takes a frame whose rows are contiguous as one
// long row: it then runs each of its steps over the whole frame, through frame-sized
// temporaries it allocates on every call, and reads the BGRA frame from memory twice.)
class BgraToYuyvConverter
{
public:
    // yuyv must hold yuyvFrameBytes(width, height) bytes; rows are packed.
    void convert(const PixelBuffer &bgra, std::uint8_t *yuyv);

private:
    std::vector<std::uint8_t> m_row; // one row of Y, then of U, then of V
};

// One YUYV frame of black (Y=16, U=V=128).
void fillYuyvBlack(std::uint8_t *yuyv, int width, int height);

} // namespace vistrel::vcam
