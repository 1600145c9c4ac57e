#pragma once
// Standard library only: the privileged helper (no Qt) compiles this rule too, so that the
// app and the helper agree on which devices are v4l2loopback's.
#include <string>

namespace vistrel::vcam {

// Whether a video4linux class entry (<sys>/class/video4linux/videoN) is a v4l2loopback
// device: its "driver" link names v4l2loopback; without a driver link (where the module
// registers its devices without a parent, under devices/virtual) its "device" link's name
// starts with v4l2loopback, or it has the module's own "max_openers" attribute.
bool isLoopbackClassEntry(const std::string &classEntry);

} // namespace vistrel::vcam
