#pragma once
#include "sysext/ExtensionManager.h"

#include <vector>

namespace vistrel::test {

// Records the submitted requests; the test answers them through their delegates.
class FakeExtensionManager final : public sysext::ExtensionManager
{
public:
    std::vector<sysext::ExtensionRequest> requests;

    void submitRequest(sysext::ExtensionRequest request) override { requests.push_back(std::move(request)); }
};

} // namespace vistrel::test
