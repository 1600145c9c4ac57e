#pragma once
#include <cstdint>

namespace vistrel::camera {

// Filtered shrinking for the whole-number ratios a camera frame meets on its way to the
// picture: 1920x1080 → 1280x720 (3:2), 2560x1440 (2:1) and 3840x2160 (3:1). At 3:2,
// by far the most common, the Bicubic kernel weighs six input samples for each output
// sample, with a bicubic (Keys, a = −0.6) widened to the ratio: as sharp as a good
// scaler's default, with the stripes too fine for the picture turned grey instead of
// into moiré. It is meant for luma; chroma, which the eye resolves far less finely and
// cameras deliver soft, takes the Mean kernel, a third of the work: the plain mean of
// the samples each output covers, as at 2:1 and 3:1 for both. Every input sample weighs
// the same in the result (to within 1 %: with the bicubic one sample in three weighs
// 44/128 over the outputs, the others 42/128), so stripes of any period
// keep their mean, and the outermost rows and columns count (samples beyond the edge
// repeat the edge).
//
// Rows and columns are filtered apart, a row at a time: an output row is first blended
// from its source rows (sourceRows() names them), then its columns are shrunk, so a row
// never leaves the first-level cache. At a fixed ratio the weights repeat with a short
// period, which the compiler turns into vector code. Works on planes of one byte per
// sample (interleaved rows are split first). Any thread; no state.
enum class ShrinkRatio { Other, OneToOne, ThreeToTwo, TwoToOne, ThreeToOne };

ShrinkRatio shrinkRatio(int from, int to);

enum class ShrinkKernel { Bicubic, Mean };

// Shrinks one row of `from` samples to `count` = from / ratio samples; `ratio` must be
// neither Other nor OneToOne, and `from` a whole number of its input groups.
void shrinkColumns(ShrinkRatio ratio, ShrinkKernel kernel, const std::uint8_t *in, int from, std::uint8_t *out,
                   int count);

// The source rows output row `row` is blended from: `count` rows from `first` on (some
// may lie beyond the frame's edges: the caller repeats the edge row for them).
struct RowSpan
{
    int first = 0;
    int count = 1;
};
RowSpan sourceRows(ShrinkRatio ratio, ShrinkKernel kernel, int row);
constexpr int kMostSourceRows = 6;

// Blends output row `row` from its source rows (`rows[0..count)`, as sourceRows() names
// them) into `out`, `bytes` long.
void blendRows(ShrinkRatio ratio, ShrinkKernel kernel, int row, const std::uint8_t *const *rows, std::uint8_t *out,
               int bytes);

} // namespace vistrel::camera
