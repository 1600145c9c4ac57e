#include "vcam/FrameDrawing.h"

#include "vcam/PixelBuffer.h"

#include <QPainter>
#include <libyuv/scale_argb.h>

namespace vistrel::vcam {

namespace {

// Pictures whose bytes are already the buffer's B,G,R,A with an opaque or premultiplied
// alpha: scaling them is a plain nearest-pixel resample, no per-pixel conversion.
bool isBufferLayout(QImage::Format format)
{
    return format == QImage::Format_RGB32 || format == QImage::Format_ARGB32_Premultiplied;
}

} // namespace

void drawFrame(PixelBuffer &buffer, const QImage &picture, bool mirror)
{
    // The frame path's common case, a camera or movie picture drawn unmirrored: libyuv's
    // nearest-pixel scaler writes each buffer pixel once, several times faster than
    // QPainter's general transform. It samples pixel centres, as QPainter does without
    // smooth transformation.
    if (!mirror && !picture.isNull() && isBufferLayout(picture.format())
        && buffer.image().format() == QImage::Format_ARGB32_Premultiplied) {
        const int scaled =
            libyuv::ARGBScale(picture.constBits(), static_cast<int>(picture.bytesPerLine()), picture.width(),
                              picture.height(), buffer.baseAddress(), static_cast<int>(buffer.bytesPerRow()),
                              buffer.width(), buffer.height(), libyuv::kFilterNone);
        if (scaled == 0)
            return;
    }

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
