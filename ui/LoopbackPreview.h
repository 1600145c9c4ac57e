#pragma once
#include <QPointer>
#include <QWidget>
#include <memory>

namespace vistrel {

namespace vcam {
class PixelBuffer;
}

// Shows, over a placeholder box, exactly the frames the link sends to the virtual
// camera, filling the box (aspect fill) with rounded corners. It never opens the
// device: a reader there would take a video call's place and keep "frames wanted"
// true forever. It follows the box's geometry.
class LoopbackPreview : public QWidget
{
    Q_OBJECT
public:
    LoopbackPreview(QWidget *box, QWidget *parent);

    // Keeps the frame (the pool buffer goes back when the next frame replaces it) and
    // repaints when visible. Answers whether this was the first frame shown.
    bool showFrame(std::shared_ptr<const vcam::PixelBuffer> frame);
    bool hasFrame() const { return m_frame != nullptr; }

protected:
    void paintEvent(QPaintEvent *event) override;
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void followBox();

    QPointer<QWidget> m_box;
    std::shared_ptr<const vcam::PixelBuffer> m_frame;
};

} // namespace vistrel
