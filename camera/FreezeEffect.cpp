#include "camera/FreezeEffect.h"

#include "core/SystemLog.h"
#include "core/Timers.h"

namespace vistrel::camera {

FreezeEffect::FreezeEffect(Timers &timers)
    : m_freezeTimer(timers.repeating(std::chrono::seconds(1), Qt::CoarseTimer, [this] { freezeEffect(); }))
{}

FreezeEffect::~FreezeEffect() = default;

bool FreezeEffect::toggleFreeze()
{
    const bool wasFrozen = m_frozen.load();
    m_frozen.store(!wasFrozen);
    changed();
    return wasFrozen;
}

bool FreezeEffect::toggleShutter()
{
    const bool wasActive = m_shutterActive;
    m_shutterActive = !wasActive;
    if (!wasActive) {
        consoleLine(QStringLiteral("Shutter activé : effet freeze toutes les 1s"));
        // The phase is kept: the first switch comes one second from now.
        m_freezeTimer->start();
    } else {
        consoleLine(QStringLiteral("Shutter désactivé"));
        m_freezeTimer->stop();
        m_frozen.store(false);
    }
    changed();
    return wasActive;
}

void FreezeEffect::freezeEffect()
{
    m_frozen.store(!m_frozen.load());
    changed();
}

} // namespace vistrel::camera
