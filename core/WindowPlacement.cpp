#include "core/WindowPlacement.h"

#include <QGuiApplication>
#include <QScreen>
#include <QWidget>

namespace vistrel {

void centerWindowOnScreen(QWidget *window)
{
    QScreen *screen = QGuiApplication::primaryScreen();
    if (!screen && !QGuiApplication::screens().isEmpty())
        screen = QGuiApplication::screens().first();
    if (!screen)
        return;
    const QRect vf = screen->availableGeometry();
    // move() places the frame, so centre the frame (the bare size until decorated).
    const QSize size = window->frameGeometry().size();
    window->move(vf.x() + vf.width() / 2 - size.width() / 2, vf.y() + vf.height() / 2 - size.height() / 2);
}

} // namespace vistrel
