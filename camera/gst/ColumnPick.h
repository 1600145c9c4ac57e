#pragma once
#include <cstdint>

namespace vistrel::camera {

// Nearest-pixel column picks for the whole-number ratios a camera frame meets
// when it is shrunk to the picture's width: 1920 → 1280 (3:2), 2560 → 1280
// (2:1) and 3840 → 1280 (3:1). Output column x takes input column ⌊(2x +
// 1)·from / (2·to)⌋, the column under its centre. libyuv's nearest scaler
// handles these ratios in scalar code; at a fixed ratio the picks repeat with a
// short period, which the compiler turns into vector shuffles.
enum class ColumnRatio { Other, ThreeToTwo, TwoToOne, ThreeToOne };

ColumnRatio columnRatio(int from, int to);

// `count` output elements from `in`; `ratio` must not be Other. Samples of one
// byte (a plane) or of two (the interleaved chroma pairs of NV12 and NV21).
void pickColumns(ColumnRatio ratio, const std::uint8_t *in, std::uint8_t *out, int count);
void pickColumns(ColumnRatio ratio, const std::uint16_t *in, std::uint16_t *out, int count);

} // namespace vistrel::camera
