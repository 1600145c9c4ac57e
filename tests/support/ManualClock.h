#pragma once
#include "core/Platform.h"

namespace vistrel::test {

// A clock the test moves by hand.
class ManualClock final : public Clock
{
public:
    double current = 1000.0;
    double now() const override { return current; }
    void advance(double seconds) { current += seconds; }
};

} // namespace vistrel::test
