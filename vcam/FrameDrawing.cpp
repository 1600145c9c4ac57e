#include "vcam/FrameDrawing.h"

#include "vcam/PixelBuffer.h"

#include <QPainter>
#include <libyuv/planar_functions.h>
#include <libyuv/scale_argb.h>

namespace vistrel::vcam {

namespace {

// Pictures whose bytes are already the buffer's B,G,R,A with an opaque or premultiplied
// alpha: libyuv copies or scales them without a per-pixel conversion.
bool isBufferLayout(QImage::Format format)
{
    return format == QImage::Format_RGB32 || format == QImage::Format_ARGB32_Premultiplied;
}

} // namespace

void drawFrame(PixelBuffer &buffer, const QImage &picture, bool mirror)
{
    // The frame path's common case, a camera or movie picture drawn unmirrored, goes
    // through libyuv: a picture of the frame's size is copied, any other is stretched
    // with its bilinear filter (the area mean where it shrinks by half or more), which
    // writes each buffer pixel once, several times faster than QPainter's smooth
    // transform (a 640x480 picture: 0.5 ms against 1 ms of several threads, and far more
    // on a CPU without vector units or an emulated one). Its horizontal blend weighs in
    // 128ths that add up to 127, so a stretched picture comes out 1/128 darker (white at
    // 253, the alpha too): less than the eye sees, and the device's YUYV ignores alpha.
    if (!mirror && isBufferLayout(picture.format()) && buffer.image().format() == QImage::Format_ARGB32_Premultiplied) {
        const auto *from = picture.constBits();
        const int fromStride = static_cast<int>(picture.bytesPerLine());
        const int toStride = static_cast<int>(buffer.bytesPerRow());
        if (picture.size() == buffer.image().size()) {
            libyuv::ARGBCopy(from, fromStride, buffer.baseAddress(), toStride, buffer.width(), buffer.height());
            return;
        }
        if (libyuv::ARGBScale(from, fromStride, picture.width(), picture.height(), buffer.baseAddress(), toStride,
                              buffer.width(), buffer.height(), libyuv::kFilterBox)
            == 0)
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
