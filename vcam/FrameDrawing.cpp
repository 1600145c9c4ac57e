#include "vcam/FrameDrawing.h"

#include "vcam/PixelBuffer.h"

#include <QPainter>

namespace vistrel::vcam {

void drawFrame(PixelBuffer &buffer, const QImage &picture, bool mirror)
{
    QPainter painter(&buffer.image());
    if (!painter.isActive())
        return; // the buffer goes out with whatever it held
    painter.setRenderHint(QPainter::SmoothPixmapTransform, false);
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
