#include "camera/gst/AreaShrink.h"

namespace vistrel::camera {

namespace {

// The weights of one ratio's output samples over its input samples; each output's
// weights add up to `total`, and every input weighs the same summed over the outputs.
template<int From, int To>
struct Kernel;

template<>
struct Kernel<3, 2>
{
    static constexpr int total = 3;
    static constexpr int weight[2][3] = {{2, 1, 0}, {0, 1, 2}};
};

template<>
struct Kernel<2, 1>
{
    static constexpr int total = 2;
    static constexpr int weight[1][2] = {{1, 1}};
};

template<>
struct Kernel<3, 1>
{
    static constexpr int total = 3;
    static constexpr int weight[1][3] = {{1, 1, 1}};
};

// The loops are compiled twice, for AVX2 and for the baseline, and the AVX2 build is
// chosen at run time where the CPU has it: the shuffles that gather every second or
// third byte are several times faster there than in SSE2. The choice is made by a
// plain CPU check rather than by an ifunc (target_clones), whose resolver runs before
// sanitizer runtimes are ready.
template<int From, int To>
[[gnu::always_inline]] inline void columnLoop(const std::uint8_t *__restrict in, std::uint8_t *__restrict out,
                                              int groups)
{
    using K = Kernel<From, To>;
    for (int group = 0; group < groups; ++group)
#pragma GCC unroll 4
        for (int k = 0; k < To; ++k) {
            unsigned sum = K::total / 2;
#pragma GCC unroll 4
            for (int t = 0; t < From; ++t)
                sum += static_cast<unsigned>(K::weight[k][t]) * in[group * From + t];
            out[group * To + k] = static_cast<std::uint8_t>(sum / K::total);
        }
}

template<int From, int To>
[[gnu::target("avx2")]] void columnsAvx2(const std::uint8_t *__restrict in, std::uint8_t *__restrict out, int groups)
{
    columnLoop<From, To>(in, out, groups);
}

template<int From, int To>
void columnsBaseline(const std::uint8_t *__restrict in, std::uint8_t *__restrict out, int groups)
{
    columnLoop<From, To>(in, out, groups);
}

bool cpuHasAvx2()
{
    static const bool has = __builtin_cpu_supports("avx2");
    return has;
}

template<int From, int To>
void columns(const std::uint8_t *in, std::uint8_t *out, int count)
{
    if (cpuHasAvx2())
        columnsAvx2<From, To>(in, out, count / To);
    else
        columnsBaseline<From, To>(in, out, count / To);
}

// One output row from its source rows, weighted as the ratio's kernel weighs them.
template<int Total, int... Weights>
[[gnu::always_inline]] inline void blendLoop(const std::uint8_t *const *rows, std::uint8_t *__restrict out, int bytes)
{
    constexpr int weights[] = {Weights...};
    constexpr int count = sizeof...(Weights);
    const std::uint8_t *__restrict r0 = rows[0];
    const std::uint8_t *__restrict r1 = rows[count > 1 ? 1 : 0];
    const std::uint8_t *__restrict r2 = rows[count > 2 ? 2 : 0];
    for (int i = 0; i < bytes; ++i) {
        unsigned sum = Total / 2 + weights[0] * r0[i];
        if constexpr (count > 1)
            sum += weights[1] * r1[i];
        if constexpr (count > 2)
            sum += weights[2] * r2[i];
        out[i] = static_cast<std::uint8_t>(sum / Total);
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

void shrinkColumns(ShrinkRatio ratio, const std::uint8_t *in, std::uint8_t *out, int count)
{
    switch (ratio) {
    case ShrinkRatio::ThreeToTwo: return columns<3, 2>(in, out, count);
    case ShrinkRatio::TwoToOne: return columns<2, 1>(in, out, count);
    case ShrinkRatio::ThreeToOne: return columns<3, 1>(in, out, count);
    case ShrinkRatio::OneToOne:
    case ShrinkRatio::Other: return;
    }
}

RowSpan sourceRows(ShrinkRatio ratio, int row)
{
    switch (ratio) {
    case ShrinkRatio::ThreeToTwo: return {row / 2 * 3 + row % 2, 2};
    case ShrinkRatio::TwoToOne: return {row * 2, 2};
    case ShrinkRatio::ThreeToOne: return {row * 3, 3};
    case ShrinkRatio::OneToOne:
    case ShrinkRatio::Other: break;
    }
    return {row, 1};
}

void blendRows(ShrinkRatio ratio, int row, const std::uint8_t *const *rows, std::uint8_t *out, int bytes)
{
    switch (ratio) {
    case ShrinkRatio::ThreeToTwo:
        // The first row of a pair leans on its upper source row, the second on its lower.
        return row % 2 == 0 ? blend<3, 2, 1>(rows, out, bytes) : blend<3, 1, 2>(rows, out, bytes);
    case ShrinkRatio::TwoToOne: return blend<2, 1, 1>(rows, out, bytes);
    case ShrinkRatio::ThreeToOne: return blend<3, 1, 1, 1>(rows, out, bytes);
    case ShrinkRatio::OneToOne:
    case ShrinkRatio::Other: return;
    }
}

} // namespace vistrel::camera
