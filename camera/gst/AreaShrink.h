#pragma once
#include <cstdint>

namespace vistrel::camera {

// Area-weighted shrinking for the whole-number ratios a camera frame meets on its way
// to the picture: 1920 → 1280 and 1080 → 720 (3:2), 2560 → 1280 (2:1), 3840 → 1280
// (3:1). Each output sample is the mean of the input it covers: at 3:2 the pair
// (2a + b)/3, (b + 2c)/3; at 2:1 and 3:1 the plain mean. Every input sample weighs
// the same in the result, so a picture's mean level survives and fine stripes turn
// into their grey instead of into moiré, and the first and last rows and columns are
// kept. Columns and rows are shrunk apart, a row at a time (a row is first blended
// from its source rows, then its columns are shrunk), so a row never leaves the
// first-level cache; at a fixed ratio the weights repeat with a short period, which
// the compiler turns into vector shuffles. Interleaved rows (packed 4:2:2, NV12's
// chroma pairs) are split into planes first. Any thread; no state.
enum class ShrinkRatio { Other, OneToOne, ThreeToTwo, TwoToOne, ThreeToOne };

ShrinkRatio shrinkRatio(int from, int to);

// Shrinks one row of a plane to `count` samples at `ratio`, which must be neither
// Other nor OneToOne; `count` must be a whole number of the ratio's output groups
// (2 at 3:2, 1 otherwise).
void shrinkColumns(ShrinkRatio ratio, const std::uint8_t *in, std::uint8_t *out, int count);

// The source rows one output row is blended from: `count` rows from `first` on.
struct RowSpan
{
    int first = 0;
    int count = 1;
};
RowSpan sourceRows(ShrinkRatio ratio, int row);

// Blends output row `row`'s source rows (`rows[0..count)`, as sourceRows() names them)
// into `out`, `bytes` long; the blend is per byte, so it holds for any layout.
void blendRows(ShrinkRatio ratio, int row, const std::uint8_t *const *rows, std::uint8_t *out, int bytes);

} // namespace vistrel::camera
