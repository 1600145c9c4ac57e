#pragma once

namespace vistrel::sysext {

// Whether the camera extension is recorded as installed and enabled on this system,
// and whether its camera is visible. Answers false on any failure.
class ExtensionProbes
{
public:
    virtual ~ExtensionProbes() = default;
    virtual bool isExtensionInstalledProbe() = 0;
    virtual bool isExtensionActivatedProbe() = 0;
};

} // namespace vistrel::sysext
