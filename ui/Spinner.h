#pragma once
#include <QWidget>

class QTimer;

namespace vistrel {

// An indeterminate, spinning progress indicator of regular control size (32 × 32).
class Spinner : public QWidget
{
    Q_OBJECT
public:
    explicit Spinner(QWidget *parent = nullptr);

    void startAnimation();
    void stopAnimation();
    bool isAnimating() const;

    QSize sizeHint() const override { return {32, 32}; }

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    QTimer *m_timer;
    int m_step = 0;
};

} // namespace vistrel
