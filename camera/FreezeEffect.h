#pragma once
#include <atomic>
#include <functional>
#include <memory>

namespace vistrel {
class RepeatingTimer;
class Timers;
} // namespace vistrel

namespace vistrel::camera {

// Freeze and the one-second shutter ("Stutter"). Both work through one flag, isFrozen:
// while it is set the camera source takes no picture, so the last one stays on the
// virtual camera. Freeze flips the flag; the shutter flips it every second until it is
// stopped, which leaves the picture live.
//
// Threads: the main thread calls everything, except isFrozen(), which the capture
// pipeline's streaming thread also reads for every frame.
class FreezeEffect
{
public:
    explicit FreezeEffect(Timers &timers);
    ~FreezeEffect();
    FreezeEffect(const FreezeEffect &) = delete;
    FreezeEffect &operator=(const FreezeEffect &) = delete;

    // Flips the flag; answers its value before (the freeze button's title follows it).
    bool toggleFreeze();
    // Starts the shutter, its first switch one second from now, or stops it and leaves
    // the picture live; a console line says which. Answers whether it was running.
    bool toggleShutter();
    // The shutter's tick: flips the flag.
    void freezeEffect();

    // Called after every change of isFrozen or isShutterActive, the shutter's own
    // switches included.
    void setChangeHandler(std::function<void()> changed) { m_changed = std::move(changed); }

    bool isShutterActive() const { return m_shutterActive; }
    // Any thread.
    bool isFrozen() const { return m_frozen.load(std::memory_order_relaxed); }

private:
    void changed() const
    {
        if (m_changed)
            m_changed();
    }

    std::atomic<bool> m_frozen{false};
    bool m_shutterActive = false;
    std::unique_ptr<RepeatingTimer> m_freezeTimer;
    std::function<void()> m_changed;
};

} // namespace vistrel::camera
