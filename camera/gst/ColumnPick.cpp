#include "camera/gst/ColumnPick.h"

#include <array>

namespace vistrel::camera {

namespace {

template<int From, int To>
constexpr std::array<int, To> pickOffsets()
{
    std::array<int, To> offsets{};
    for (int x = 0; x < To; ++x)
        offsets[x] = (2 * x + 1) * From / (2 * To);
    return offsets;
}

// The loop is compiled twice, for AVX2 and for the baseline, and the AVX2 build
// is chosen at run time where the CPU has it: the shuffles that gather every
// second or third byte are several times faster there than in SSE2. The choice
// is made by a plain CPU check rather than by an ifunc (target_clones), whose
// resolver runs before sanitizer runtimes are ready.
template<int From, int To, typename Sample>
[[gnu::always_inline]] inline void pickLoop(const Sample *__restrict in, Sample *__restrict out, int count)
{
    constexpr auto offsets = pickOffsets<From, To>();
    const int groups = count / To;
    for (int group = 0; group < groups; ++group)
        for (int x = 0; x < To; ++x)
            out[group * To + x] = in[group * From + offsets[x]];
    for (int x = 0; x < count % To; ++x)
        out[groups * To + x] = in[groups * From + offsets[x]];
}

template<int From, int To, typename Sample>
[[gnu::target("avx2")]] void pickEveryAvx2(const Sample *__restrict in, Sample *__restrict out, int count)
{
    pickLoop<From, To>(in, out, count);
}

template<int From, int To, typename Sample>
void pickEveryBaseline(const Sample *__restrict in, Sample *__restrict out, int count)
{
    pickLoop<From, To>(in, out, count);
}

bool cpuHasAvx2()
{
    static const bool has = __builtin_cpu_supports("avx2");
    return has;
}

template<int From, int To, typename Sample>
void pickEvery(const Sample *in, Sample *out, int count)
{
    if (cpuHasAvx2())
        pickEveryAvx2<From, To>(in, out, count);
    else
        pickEveryBaseline<From, To>(in, out, count);
}

template<typename Sample>
void pick(ColumnRatio ratio, const Sample *in, Sample *out, int count)
{
    switch (ratio) {
    case ColumnRatio::ThreeToTwo: return pickEvery<3, 2>(in, out, count);
    case ColumnRatio::TwoToOne: return pickEvery<2, 1>(in, out, count);
    case ColumnRatio::ThreeToOne: return pickEvery<3, 1>(in, out, count);
    case ColumnRatio::Other: return;
    }
}

} // namespace

ColumnRatio columnRatio(int from, int to)
{
    if (from == 3 * to)
        return ColumnRatio::ThreeToOne;
    if (from == 2 * to)
        return ColumnRatio::TwoToOne;
    if (2 * from == 3 * to)
        return ColumnRatio::ThreeToTwo;
    return ColumnRatio::Other;
}

void pickColumns(ColumnRatio ratio, const std::uint8_t *in, std::uint8_t *out, int count)
{
    pick(ratio, in, out, count);
}

void pickColumns(ColumnRatio ratio, const std::uint16_t *in, std::uint16_t *out, int count)
{
    pick(ratio, in, out, count);
}

} // namespace vistrel::camera
