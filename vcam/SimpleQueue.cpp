#include "vcam/SimpleQueue.h"

#include <ctime>

namespace vistrel::vcam {

std::int64_t hostTimeNanoseconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

} // namespace vistrel::vcam
