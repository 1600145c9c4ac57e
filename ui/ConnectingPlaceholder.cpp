#include "ui/ConnectingPlaceholder.h"

#include "ui/Spinner.h"

#include <QEvent>
#include <QFrame>
#include <QLabel>
#include <QPointer>

namespace vistrel {
namespace {

// Keeps the connecting spinner centred (12 points above the middle) and its label
// 8 points below it, as the box resizes.
class PlaceholderLayout final : public QObject
{
public:
    PlaceholderLayout(QWidget *content, Spinner *spinner, QLabel *label)
        : QObject(content), m_content(content), m_spinner(spinner), m_label(label)
    {
        content->installEventFilter(this);
        place();
    }

    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (watched == m_content && (event->type() == QEvent::Resize || event->type() == QEvent::Show))
            place();
        return false;
    }

private:
    void place()
    {
        if (!m_spinner || !m_label)
            return;
        const QPoint centre = m_content->rect().center();
        const QSize spinnerSize = m_spinner->size();
        m_spinner->move(centre.x() - spinnerSize.width() / 2, centre.y() - 12 - spinnerSize.height() / 2);
        m_label->adjustSize();
        m_label->move(centre.x() - m_label->width() / 2, m_spinner->geometry().bottom() + 1 + 8);
    }

    QWidget *m_content;
    QPointer<Spinner> m_spinner;
    QPointer<QLabel> m_label;
};

} // namespace

Spinner *showConnectingPlaceholder(QWidget *content)
{
    for (QWidget *child : content->findChildren<QWidget *>(Qt::FindDirectChildrenOnly))
        child->hide();

    auto *spinner = new Spinner(content);
    auto *label = new QLabel(QStringLiteral("Connecting to camera…"), content);
    QFont font = label->font();
    font.setPointSize(12);
    label->setFont(font);
    label->setAlignment(Qt::AlignCenter);
    label->setForegroundRole(QPalette::PlaceholderText);
    label->setFrameShape(QFrame::NoFrame);
    label->setAutoFillBackground(false);
    label->setTextInteractionFlags(Qt::NoTextInteraction);
    new PlaceholderLayout(content, spinner, label);
    spinner->show();
    label->show();

    spinner->startAnimation();
    return spinner;
}

} // namespace vistrel
