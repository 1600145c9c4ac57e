#pragma once
#include "sysext/ExtensionProbes.h"

namespace vistrel::test {

// Extension probes whose answers the test sets; counts how often each was asked.
class FakeExtensionProbes final : public sysext::ExtensionProbes
{
public:
    bool installed = false;
    bool activated = false;
    int installedCalls = 0;
    int activatedCalls = 0;

    bool isExtensionInstalledProbe() override
    {
        ++installedCalls;
        return installed;
    }
    bool isExtensionActivatedProbe() override
    {
        ++activatedCalls;
        return activated;
    }
};

} // namespace vistrel::test
