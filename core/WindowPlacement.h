#pragma once
#include <QPoint>
#include <QRect>
#include <QSize>
#include <algorithm>
#include <cmath>
#include <optional>

class QWidget;

namespace vistrel {

// Gap between the status item and the window's top edge.
inline constexpr int kStatusItemGap = 6;
// Distance kept from the edges of the screen's available area.
inline constexpr int kScreenMargin = 8;

// Where a w × h window goes below the status item whose screen rectangle is
// `anchor`: centred under it, kept 8 px inside the available area on the left,
// right and bottom (the left margin wins when the window is too wide), never pushed
// down from the top. Without a screen the unclamped position is used. Qt
// coordinates: y grows downwards, right and bottom edges are left + width and
// top + height.
inline QPoint windowOriginBelowStatusItem(const QRect &anchor, const QSize &window,
                                          const std::optional<QRect> &availableGeometry)
{
    const double centreX = anchor.x() + anchor.width() / 2.0;
    int x = static_cast<int>(std::floor(centreX - window.width() / 2.0));
    int y = anchor.y() + anchor.height() + kStatusItemGap;
    if (!availableGeometry)
        return {x, y};
    const QRect &vf = *availableGeometry;
    x = std::min(vf.x() + vf.width() - window.width() - kScreenMargin, x);
    x = std::max(vf.x() + kScreenMargin, x);
    y = std::min(vf.y() + vf.height() - kScreenMargin - window.height(), y);
    return {x, y};
}

// Centres a window on the available geometry of the primary screen.
void centerWindowOnScreen(QWidget *window);

} // namespace vistrel
