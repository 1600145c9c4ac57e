// Freeze and shutter: both work through the one flag isFrozen, which the capture
// path tests per frame.
#include "camera/ViewController.h"

#include "core/SystemLog.h"

#include <QPushButton>
#include <QTimer>

namespace vistrel {

void ViewController::toggleFreeze()
{
    const bool wasFrozen = isFrozen.load();
    isFrozen.store(!wasFrozen);
    freezeButton->setText(wasFrozen ? QStringLiteral("Freeze") : QStringLiteral("Unfreeze"));
}

void ViewController::toggleShutter()
{
    const bool wasActive = isShutterActive;
    isShutterActive = !wasActive;
    if (!wasActive) {
        consoleLine(QStringLiteral("Shutter activé : effet freeze toutes les 1s"));
        // The phase is kept: the first switch comes one second from now. A timer
        // already stored is replaced without being stopped.
        auto *shutterTimer = new QTimer(this);
        shutterTimer->setInterval(1000);
        connect(shutterTimer, &QTimer::timeout, this, &ViewController::freezeEffect);
        shutterTimer->start();
        freezeTimer = shutterTimer;
    } else {
        consoleLine(QStringLiteral("Shutter désactivé"));
        if (freezeTimer) {
            freezeTimer->stop();
            freezeTimer->deleteLater();
        }
        isFrozen.store(false);
    }
    shutterButton->setText(wasActive ? QStringLiteral("Stutter") : QStringLiteral("Stop"));
}

void ViewController::freezeEffect() { isFrozen.store(!isFrozen.load()); }

} // namespace vistrel
