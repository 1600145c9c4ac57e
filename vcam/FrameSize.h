#pragma once

namespace vistrel::vcam {

// The virtual camera's frame: every picture is stretched to this size on its way out.
inline constexpr int kFrameWidth = 1280;
inline constexpr int kFrameHeight = 720;

} // namespace vistrel::vcam
