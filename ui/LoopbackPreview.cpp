#include "ui/LoopbackPreview.h"

#include "vcam/PixelBuffer.h"

#include <QEvent>
#include <QPainter>
#include <QPainterPath>

namespace vistrel {

namespace {
constexpr qreal kCornerRadius = 8.0;
}

LoopbackPreview::LoopbackPreview(QWidget *box, QWidget *parent) : QWidget(parent), m_box(box)
{
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setAttribute(Qt::WA_TranslucentBackground);
    if (m_box) {
        m_box->installEventFilter(this);
        if (m_box->parentWidget())
            m_box->parentWidget()->installEventFilter(this);
    }
    followBox();
}

bool LoopbackPreview::showFrame(std::shared_ptr<const vcam::PixelBuffer> frame)
{
    const bool first = !m_frame && frame;
    m_frame = std::move(frame);
    if (isVisible())
        update();
    return first;
}

void LoopbackPreview::followBox()
{
    if (!m_box || !parentWidget())
        return;
    setGeometry(QRect(m_box->mapTo(parentWidget(), QPoint(0, 0)), m_box->size()));
    raise();
}

bool LoopbackPreview::eventFilter(QObject *watched, QEvent *event)
{
    if (event->type() == QEvent::Move || event->type() == QEvent::Resize || event->type() == QEvent::Show
        || event->type() == QEvent::LayoutRequest)
        followBox();
    return QWidget::eventFilter(watched, event);
}

void LoopbackPreview::paintEvent(QPaintEvent *)
{
    if (!m_frame)
        return;
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    QPainterPath rounded;
    rounded.addRoundedRect(QRectF(rect()), kCornerRadius, kCornerRadius);
    painter.setClipPath(rounded);

    // Aspect fill: scale to cover the whole preview, centred, the overflow cut off.
    const QImage &image = m_frame->image();
    const QSizeF covered = QSizeF(image.size()).scaled(QSizeF(size()), Qt::KeepAspectRatioByExpanding);
    const QRectF target((width() - covered.width()) / 2, (height() - covered.height()) / 2, covered.width(),
                        covered.height());
    painter.drawImage(target, image);
}

} // namespace vistrel
