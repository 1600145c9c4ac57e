#pragma once
#include <QImage>

namespace vistrel::vcam {

class PixelBuffer;

// Paints a picture over the whole buffer, stretched to its size whatever the picture's
// own size or aspect ratio (no letterboxing, no cropping), smoothly (bilinear, or
// the area mean where it shrinks by half or more); mirrored left to right when asked.
void drawFrame(PixelBuffer &buffer, const QImage &picture, bool mirror);

} // namespace vistrel::vcam
