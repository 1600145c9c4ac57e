#include "ui/Spinner.h"

#include <QPainter>
#include <QTimer>

namespace vistrel {

namespace {
constexpr int kSpokes = 12;
}

Spinner::Spinner(QWidget *parent) : QWidget(parent), m_timer(new QTimer(this))
{
    setFixedSize(sizeHint());
    setAttribute(Qt::WA_TranslucentBackground);
    m_timer->setInterval(1000 / kSpokes);
    connect(m_timer, &QTimer::timeout, this, [this] {
        m_step = (m_step + 1) % kSpokes;
        update();
    });
}

void Spinner::startAnimation()
{
    m_timer->start();
}

void Spinner::stopAnimation()
{
    m_timer->stop();
}

bool Spinner::isAnimating() const
{
    return m_timer->isActive();
}

void Spinner::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.translate(width() / 2.0, height() / 2.0);
    const qreal radius = qMin(width(), height()) / 2.0;
    QColor spoke = palette().color(QPalette::WindowText);
    for (int i = 0; i < kSpokes; ++i) {
        // The spoke at the current step is darkest; the trail fades behind it.
        const int age = (m_step - i + kSpokes) % kSpokes;
        spoke.setAlphaF(1.0 - 0.75 * age / kSpokes);
        painter.setPen(QPen(spoke, radius / 6, Qt::SolidLine, Qt::RoundCap));
        painter.drawLine(QPointF(0, -radius * 0.45), QPointF(0, -radius * 0.9));
        painter.rotate(360.0 / kSpokes);
    }
}

} // namespace vistrel
