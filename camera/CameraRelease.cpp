#include "camera/CameraRelease.h"

#include "core/Timers.h"

namespace vistrel::camera {

CameraRelease::CameraRelease(Timers &timers, std::chrono::milliseconds grace, Actions actions)
    : m_actions(std::move(actions)), m_grace(timers.repeating(grace, Qt::CoarseTimer, [this] { graceOver(); })),
      m_probe(timers.repeating(kProbeInterval, Qt::CoarseTimer, [this] { m_actions.probe(); }))
{}

CameraRelease::~CameraRelease() = default;

void CameraRelease::update()
{
    if (m_actions.needed()) {
        m_grace->stop();
        m_probe->stop();
        if (m_actions.released())
            m_actions.reopen();
        return;
    }
    // A camera opened again by someone else (another camera picked) starts a new grace.
    if (!m_actions.released()) {
        m_probe->stop();
        if (!m_grace->isActive())
            m_grace->start();
    }
}

void CameraRelease::graceOver()
{
    m_grace->stop();
    if (m_actions.needed() || m_actions.released())
        return;
    m_actions.release();
    if (m_actions.released())
        m_probe->start();
}

} // namespace vistrel::camera
