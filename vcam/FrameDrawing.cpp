#include "vcam/FrameDrawing.h"

#include "vcam/PixelBuffer.h"

#include <QPainter>
#include <libyuv/planar_functions.h>

namespace vistrel::vcam {

namespace {

// Pictures whose bytes are already the buffer's B,G,R,A with an opaque or premultiplied
// alpha: at the buffer's size they are copied as they are.
bool isBufferLayout(QImage::Format format)
{
    return format == QImage::Format_RGB32 || format == QImage::Format_ARGB32_Premultiplied;
}

} // namespace

void drawFrame(PixelBuffer &buffer, const QImage &picture, bool mirror)
{
    // The frame path's common case, a camera picture already at the frame's size drawn
    // unmirrored: a plain copy of the rows. Anything else is scaled by QPainter, whose
    // smooth transform blends the nearest four pixels exactly (libyuv's ARGB filter
    // loses up to two levels on each channel, alpha included).
    if (!mirror && picture.size() == buffer.image().size() && isBufferLayout(picture.format())
        && buffer.image().format() == QImage::Format_ARGB32_Premultiplied) {
        libyuv::ARGBCopy(picture.constBits(), static_cast<int>(picture.bytesPerLine()), buffer.baseAddress(),
                         static_cast<int>(buffer.bytesPerRow()), buffer.width(), buffer.height());
        return;
    }

    QPainter painter(&buffer.image());
    if (!painter.isActive())
        return; // the buffer goes out with whatever it held
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    painter.setCompositionMode(QPainter::CompositionMode_Source);
    const qreal width = buffer.width();
    const qreal height = buffer.height();
    if (mirror) {
        painter.translate(width, 0);
        painter.scale(-1, 1);
    }
    painter.drawImage(QRectF(0, 0, width, height), picture);
}

} // namespace vistrel::vcam
