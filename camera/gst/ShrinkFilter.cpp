#include "camera/gst/ShrinkFilter.h"

#include <algorithm>
#include <array>
#include <immintrin.h>
#include <iterator>
#include <utility>

namespace vistrel::camera {

namespace {

// A filter for one ratio: for each of its `to` outputs per group of `from` inputs, the
// offset of its first tap from the group's first input and the taps' weights, which add
// up to `total`.

// The bicubic's weights at output centres 0.25 and 1.75 input samples into the group,
// scaled to 64 and rounded so that each row adds up to 64 and the inputs weigh 42, 44
// and 42 of the 128 over the two outputs: within 1 % of a plain area mean's 2/3 each
// (an exact third needs weights in 96ths, and a division the shift avoids).
struct Bicubic32
{
    static constexpr int from = 3, to = 2, taps = 6, total = 64;
    static constexpr int first[2] = {-2, -1};
    static constexpr int weight[2][taps] = {{-3, 6, 40, 25, -3, -1}, {-1, -3, 25, 40, 6, -3}};
};

struct Mean32
{
    static constexpr int from = 3, to = 2, taps = 2, total = 3;
    static constexpr int first[2] = {0, 1};
    static constexpr int weight[2][taps] = {{2, 1}, {1, 2}};
};

struct Mean21
{
    static constexpr int from = 2, to = 1, taps = 2, total = 2;
    static constexpr int first[1] = {0};
    static constexpr int weight[1][taps] = {{1, 1}};
};

struct Mean31
{
    static constexpr int from = 3, to = 1, taps = 3, total = 3;
    static constexpr int first[1] = {0};
    static constexpr int weight[1][taps] = {{1, 1, 1}};
};

template<int Total>
[[gnu::always_inline]] inline std::uint8_t normalised(int sum)
{
    // Rounded to nearest; the negative lobes may take a sum below zero or above white.
    return static_cast<std::uint8_t>(std::clamp((sum + Total / 2) / Total, 0, 255));
}

// Groups whose taps all lie inside the row; the others (a group or two at each end)
// repeat the edge sample, in scalar code.
template<class K, bool Clamped>
[[gnu::always_inline]] inline void columnGroups(const std::uint8_t *__restrict in, int from,
                                                std::uint8_t *__restrict out, int groupBegin, int groupEnd)
{
    for (int group = groupBegin; group < groupEnd; ++group)
#pragma GCC unroll 4
        for (int k = 0; k < K::to; ++k) {
            int sum = 0;
#pragma GCC unroll 8
            for (int t = 0; t < K::taps; ++t) {
                int at = group * K::from + K::first[k] + t;
                if constexpr (Clamped)
                    at = std::clamp(at, 0, from - 1);
                sum += K::weight[k][t] * in[at];
            }
            out[group * K::to + k] = normalised<K::total>(sum);
        }
}

template<class K>
constexpr int firstInnerGroup()
{
    const int lowest = *std::min_element(std::begin(K::first), std::end(K::first));
    return lowest >= 0 ? 0 : (-lowest + K::from - 1) / K::from;
}

// The loops are compiled twice, for AVX2 and for the baseline, and the AVX2 build is
// chosen at run time where the CPU has it: the shuffles that gather every second or
// third byte are several times faster there than in SSE2. The choice is made by a
// plain CPU check rather than by an ifunc (target_clones), whose resolver runs before
// sanitizer runtimes are ready.
template<class K>
[[gnu::always_inline]] inline void columnLoop(const std::uint8_t *in, int from, std::uint8_t *out, int groups)
{
    const int highest = *std::max_element(std::begin(K::first), std::end(K::first)) + K::taps;
    const int begin = std::min(firstInnerGroup<K>(), groups);
    const int end = std::max(begin, std::min(groups, (from - highest) / K::from + 1));
    columnGroups<K, true>(in, from, out, 0, begin);
    columnGroups<K, false>(in, from, out, begin, end);
    columnGroups<K, true>(in, from, out, end, groups);
}

template<class K>
[[gnu::target("avx2")]] void columnsAvx2(const std::uint8_t *in, int from, std::uint8_t *out, int groups)
{
    columnLoop<K>(in, from, out, groups);
}

template<class K>
void columnsBaseline(const std::uint8_t *in, int from, std::uint8_t *out, int groups)
{
    columnLoop<K>(in, from, out, groups);
}

bool cpuHasAvx2()
{
    static const bool has = __builtin_cpu_supports("avx2");
    return has;
}

template<class K>
void columns(const std::uint8_t *in, int from, std::uint8_t *out, int count)
{
    if (cpuHasAvx2())
        columnsAvx2<K>(in, from, out, count / K::to);
    else
        columnsBaseline<K>(in, from, out, count / K::to);
}

// One output row from its source rows, weighted as the ratio's kernel weighs them.
template<int Total, int... Weights>
[[gnu::always_inline]] inline void blendLoop(const std::uint8_t *const *rows, std::uint8_t *__restrict out, int bytes)
{
    constexpr int weights[] = {Weights...};
    constexpr int count = sizeof...(Weights);
    const std::uint8_t *__restrict r[kMostSourceRows] = {};
    for (int k = 0; k < count; ++k)
        r[k] = rows[k];
    for (int i = 0; i < bytes; ++i) {
        int sum = 0;
#pragma GCC unroll 8
        for (int k = 0; k < count; ++k)
            sum += weights[k] * r[k][i];
        out[i] = normalised<Total>(sum);
    }
}

template<int Total, int... Weights>
[[gnu::target("avx2")]] void blendAvx2(const std::uint8_t *const *rows, std::uint8_t *out, int bytes)
{
    blendLoop<Total, Weights...>(rows, out, bytes);
}

template<int Total, int... Weights>
void blendBaseline(const std::uint8_t *const *rows, std::uint8_t *out, int bytes)
{
    blendLoop<Total, Weights...>(rows, out, bytes);
}

template<int Total, int... Weights>
void blend(const std::uint8_t *const *rows, std::uint8_t *out, int bytes)
{
    if (cpuHasAvx2())
        blendAvx2<Total, Weights...>(rows, out, bytes);
    else
        blendBaseline<Total, Weights...>(rows, out, bytes);
}

template<class K, int Output, std::size_t... T>
void blendWith(const std::uint8_t *const *rows, std::uint8_t *out, int bytes, std::index_sequence<T...>)
{
    blend<K::total, K::weight[Output][T]...>(rows, out, bytes);
}

template<class K, int Output>
void blendOutput(const std::uint8_t *const *rows, std::uint8_t *out, int bytes)
{
    blendWith<K, Output>(rows, out, bytes, std::make_index_sequence<K::taps>());
}

// --- 3:2 with AVX2 ---------------------------------------------------------------
//
// The general loops above run six taps, or a division by three, at scalar-like speed,
// so 3:2 has its own: rows are blended with pmaddubsw (pixel pairs times weight pairs,
// summed in 16 bits), and a row's columns are gathered into tap pairs by byte shuffles
// and weighed the same way. Both give the general loops' bytes exactly.

using Weights6 = std::array<std::int8_t, 6>;
constexpr Weights6 weights32(int k)
{
    Weights6 w{};
    for (int t = 0; t < 6; ++t)
        w[t] = static_cast<std::int8_t>(Bicubic32::weight[k][t]);
    return w;
}

[[gnu::target("avx2"), gnu::always_inline]] inline __m256i weightPair(std::int8_t first, std::int8_t second)
{
    return _mm256_set1_epi16(
        static_cast<short>(static_cast<std::uint8_t>(first) | (static_cast<std::uint8_t>(second) << 8)));
}

// out[i] = Σ w[t]·rows[t][i] / 64, rounded and clamped, for i in [0, count).
[[gnu::target("avx2")]] void blend6Avx2(const std::uint8_t *const *rows, const Weights6 &w, std::uint8_t *out,
                                        int count)
{
    const __m256i w01 = weightPair(w[0], w[1]), w23 = weightPair(w[2], w[3]), w45 = weightPair(w[4], w[5]);
    const __m256i half = _mm256_set1_epi16(32);
    int i = 0;
    for (; i + 32 <= count; i += 32) {
        const __m256i r0 = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(rows[0] + i)),
                      r1 = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(rows[1] + i)),
                      r2 = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(rows[2] + i));
        const __m256i r3 = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(rows[3] + i)),
                      r4 = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(rows[4] + i)),
                      r5 = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(rows[5] + i));
        __m256i low = _mm256_maddubs_epi16(_mm256_unpacklo_epi8(r0, r1), w01);
        __m256i high = _mm256_maddubs_epi16(_mm256_unpackhi_epi8(r0, r1), w01);
        low = _mm256_add_epi16(low, _mm256_maddubs_epi16(_mm256_unpacklo_epi8(r2, r3), w23));
        high = _mm256_add_epi16(high, _mm256_maddubs_epi16(_mm256_unpackhi_epi8(r2, r3), w23));
        low = _mm256_add_epi16(low, _mm256_maddubs_epi16(_mm256_unpacklo_epi8(r4, r5), w45));
        high = _mm256_add_epi16(high, _mm256_maddubs_epi16(_mm256_unpackhi_epi8(r4, r5), w45));
        low = _mm256_srai_epi16(_mm256_add_epi16(low, half), 6);
        high = _mm256_srai_epi16(_mm256_add_epi16(high, half), 6);
        // Unpacking and packing both work within 128-bit lanes, so the order comes back.
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(out + i), _mm256_packus_epi16(low, high));
    }
    for (; i < count; ++i) {
        int sum = 0;
        for (int t = 0; t < 6; ++t)
            sum += w[t] * rows[t][i];
        out[i] = normalised<64>(sum);
    }
}

// The area mean of two rows at 3:2, (2a + b)/3 or (a + 2b)/3, rounded.
[[gnu::target("avx2")]] void blendMean32Avx2(const std::uint8_t *const *rows, bool secondHeavier, std::uint8_t *out,
                                             int count)
{
    const __m256i weights = secondHeavier ? weightPair(1, 2) : weightPair(2, 1);
    const __m256i one = _mm256_set1_epi16(1), third = _mm256_set1_epi16(21846);
    int i = 0;
    for (; i + 32 <= count; i += 32) {
        const __m256i r0 = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(rows[0] + i));
        const __m256i r1 = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(rows[1] + i));
        // (sum + 1) / 3 for sums up to 765, as the high half of a multiply.
        const __m256i low = _mm256_mulhi_epu16(
            _mm256_add_epi16(_mm256_maddubs_epi16(_mm256_unpacklo_epi8(r0, r1), weights), one), third);
        const __m256i high = _mm256_mulhi_epu16(
            _mm256_add_epi16(_mm256_maddubs_epi16(_mm256_unpackhi_epi8(r0, r1), weights), one), third);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(out + i), _mm256_packus_epi16(low, high));
    }
    for (; i < count; ++i)
        out[i] = static_cast<std::uint8_t>(
            ((secondHeavier ? rows[0][i] + 2 * rows[1][i] : 2 * rows[0][i] + rows[1][i]) + 1) / 3);
}

// Output n of a lane (group n / 2, odd when n is odd) has its taps from lane byte
// 3 (n / 2) + n % 2 on (six taps, the first two before the group) or, for the mean,
// from 3 (n / 2) + 2 + n % 2 on (two taps inside the group). For the pair of taps from
// `firstTap` on: the bytes to pick, twice (one lane each), and their weights.
template<class K>
constexpr std::array<std::int8_t, 32> tapPairs(int firstTap)
{
    std::array<std::int8_t, 32> bytes{};
    for (int n = 0; n < 16; ++n) {
        const int base = 3 * (n % 8 / 2) + n % 2 + (K::taps == 6 ? 0 : 2) + firstTap;
        bytes[2 * n] = static_cast<std::int8_t>(base);
        bytes[2 * n + 1] = static_cast<std::int8_t>(base + 1);
    }
    return bytes;
}

template<class K>
constexpr std::array<std::int8_t, 32> tapWeights(int firstTap)
{
    std::array<std::int8_t, 32> bytes{};
    for (int n = 0; n < 16; ++n) {
        bytes[2 * n] = static_cast<std::int8_t>(K::weight[n % 2][firstTap]);
        bytes[2 * n + 1] = static_cast<std::int8_t>(K::weight[n % 2][firstTap + 1]);
    }
    return bytes;
}

[[gnu::target("avx2"), gnu::always_inline]] inline __m256i load32(const std::array<std::int8_t, 32> &bytes)
{
    return _mm256_loadu_si256(reinterpret_cast<const __m256i *>(bytes.data()));
}

// Sixteen outputs (eight groups) from the samples from `at` on, as 16-bit values.
template<class K>
[[gnu::target("avx2"), gnu::always_inline]] inline __m256i eightGroups(const std::uint8_t *at)
{
    static constexpr auto pick01 = tapPairs<K>(0), weight01 = tapWeights<K>(0);
    const __m256i x =
        _mm256_loadu2_m128i(reinterpret_cast<const __m128i *>(at + 12), reinterpret_cast<const __m128i *>(at));
    __m256i sum = _mm256_maddubs_epi16(_mm256_shuffle_epi8(x, load32(pick01)), load32(weight01));
    if constexpr (K::taps == 6) {
        static constexpr auto pick23 = tapPairs<K>(2), weight23 = tapWeights<K>(2);
        static constexpr auto pick45 = tapPairs<K>(4), weight45 = tapWeights<K>(4);
        sum = _mm256_add_epi16(sum, _mm256_maddubs_epi16(_mm256_shuffle_epi8(x, load32(pick23)), load32(weight23)));
        sum = _mm256_add_epi16(sum, _mm256_maddubs_epi16(_mm256_shuffle_epi8(x, load32(pick45)), load32(weight45)));
        return _mm256_srai_epi16(_mm256_add_epi16(sum, _mm256_set1_epi16(K::total / 2)), 6);
    } else {
        // (sum + 1) / 3 for sums up to 765, as the high half of a multiply.
        return _mm256_mulhi_epu16(_mm256_add_epi16(sum, _mm256_set1_epi16(1)), _mm256_set1_epi16(21846));
    }
}

// Sixteen groups from `group` on: the samples from two before it to two after them.
template<class K>
[[gnu::target("avx2"), gnu::always_inline]] inline void sixteenGroups(const std::uint8_t *in, std::uint8_t *out,
                                                                      int group)
{
    const std::uint8_t *at = in + 3 * group - 2;
    const __m256i packed = _mm256_packus_epi16(eightGroups<K>(at), eightGroups<K>(at + 24));
    // Packing interleaves the lanes: groups 0-3, 8-11, 4-7, 12-15 back in order.
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(out + 2 * group),
                        _mm256_permute4x64_epi64(packed, _MM_SHUFFLE(3, 1, 2, 0)));
}

// A row's columns at 3:2, sixteen groups (48 samples in, 32 out) a step. Each 128-bit
// lane takes the 16 samples around four groups, from two before the first to two after
// the last; byte shuffles lay each output's taps side by side in pairs, and pmaddubsw
// weighs a pair for each output at once (even and odd outputs alternate, each with its
// own weights). The first group and the few left at the end go through the scalar
// loop, which repeats the edge samples.
template<class K>
[[gnu::target("avx2")]] void columns32Avx2(const std::uint8_t *in, int from, std::uint8_t *out, int groups)
{
    static_assert(K::from == 3 && K::to == 2);
    // A step's last lane reads up to sample 3 (group + 12) - 2 + 15, so the first group
    // and the last (which reach beyond the row) are left to the scalar loop. The last
    // step ends at the last group but one, overlapping the one before it if need be.
    const int lastStep = groups - 17;
    if (lastStep < 1) {
        columnGroups<K, true>(in, from, out, 0, groups);
        return;
    }
    for (int group = 1; group < lastStep; group += 16)
        sixteenGroups<K>(in, out, group);
    sixteenGroups<K>(in, out, lastStep);
    columnGroups<K, true>(in, from, out, 0, 1);
    columnGroups<K, true>(in, from, out, groups - 1, groups);
}

} // namespace

ShrinkRatio shrinkRatio(int from, int to)
{
    if (from == to)
        return ShrinkRatio::OneToOne;
    if (from == 3 * to)
        return ShrinkRatio::ThreeToOne;
    if (from == 2 * to)
        return ShrinkRatio::TwoToOne;
    if (2 * from == 3 * to)
        return ShrinkRatio::ThreeToTwo;
    return ShrinkRatio::Other;
}

void shrinkColumns(ShrinkRatio ratio, ShrinkKernel kernel, const std::uint8_t *in, int from, std::uint8_t *out,
                   int count)
{
    switch (ratio) {
    case ShrinkRatio::ThreeToTwo:
        if (cpuHasAvx2())
            return kernel == ShrinkKernel::Mean ? columns32Avx2<Mean32>(in, from, out, count / 2)
                                                : columns32Avx2<Bicubic32>(in, from, out, count / 2);
        return kernel == ShrinkKernel::Mean ? columns<Mean32>(in, from, out, count)
                                            : columns<Bicubic32>(in, from, out, count);
    case ShrinkRatio::TwoToOne: return columns<Mean21>(in, from, out, count);
    case ShrinkRatio::ThreeToOne: return columns<Mean31>(in, from, out, count);
    case ShrinkRatio::OneToOne:
    case ShrinkRatio::Other: return;
    }
}

RowSpan sourceRows(ShrinkRatio ratio, ShrinkKernel kernel, int row)
{
    switch (ratio) {
    case ShrinkRatio::ThreeToTwo:
        if (kernel == ShrinkKernel::Mean)
            return {row / 2 * 3 + Mean32::first[row % 2], Mean32::taps};
        return {row / 2 * 3 + Bicubic32::first[row % 2], Bicubic32::taps};
    case ShrinkRatio::TwoToOne: return {row * 2, Mean21::taps};
    case ShrinkRatio::ThreeToOne: return {row * 3, Mean31::taps};
    case ShrinkRatio::OneToOne:
    case ShrinkRatio::Other: break;
    }
    return {row, 1};
}

void blendRows(ShrinkRatio ratio, ShrinkKernel kernel, int row, const std::uint8_t *const *rows, std::uint8_t *out,
               int bytes)
{
    // The two rows of a 3:2 group mirror each other's weights.
    const bool second = row % 2 == 1;
    switch (ratio) {
    case ShrinkRatio::ThreeToTwo:
        if (kernel == ShrinkKernel::Mean) {
            if (cpuHasAvx2())
                return blendMean32Avx2(rows, second, out, bytes);
            return second ? blendOutput<Mean32, 1>(rows, out, bytes) : blendOutput<Mean32, 0>(rows, out, bytes);
        }
        if (cpuHasAvx2()) {
            static constexpr Weights6 firstWeights = weights32(0), secondWeights = weights32(1);
            return blend6Avx2(rows, second ? secondWeights : firstWeights, out, bytes);
        }
        return second ? blendOutput<Bicubic32, 1>(rows, out, bytes) : blendOutput<Bicubic32, 0>(rows, out, bytes);
    case ShrinkRatio::TwoToOne: return blendOutput<Mean21, 0>(rows, out, bytes);
    case ShrinkRatio::ThreeToOne: return blendOutput<Mean31, 0>(rows, out, bytes);
    case ShrinkRatio::OneToOne:
    case ShrinkRatio::Other: return;
    }
}

} // namespace vistrel::camera
