#pragma once
#include "core/Platform.h"

#include <functional>

namespace vistrel::test {

// Records termination requests instead of ending the test process. `onTerminate`
// may stand in for what the platform does then (e.g. the will-terminate handler).
class RecordingApplication final : public Application
{
public:
    int terminateCalls = 0;
    int activateCalls = 0;
    std::function<void()> onTerminate;

    void terminate() override
    {
        ++terminateCalls;
        if (onTerminate)
            onTerminate();
    }
    void activateIgnoringOtherApps() override { ++activateCalls; }
};

} // namespace vistrel::test
