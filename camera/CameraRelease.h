#pragma once
#include <chrono>
#include <functional>
#include <memory>

namespace vistrel {
class RepeatingTimer;
class Timers;
} // namespace vistrel

namespace vistrel::camera {

// Lets the real camera go while nothing needs its pictures, so its light goes off, and
// takes it back the moment something does.
//
// update() is called whenever the answer of `needed` may have changed. Not needed for
// `grace` in a row, the camera is released; needed again, it is reopened at once. While
// it is released, `probe` runs every kProbeInterval: it asks sooner than anyone else
// whether a reader has come, so the camera is back before the reader waits long.
//
// Threads: the main thread.
class CameraRelease
{
public:
    static constexpr std::chrono::milliseconds kProbeInterval{250};

    struct Actions
    {
        std::function<bool()> needed;
        std::function<bool()> released;
        std::function<void()> release;
        std::function<void()> reopen;
        std::function<void()> probe;
    };

    CameraRelease(Timers &timers, std::chrono::milliseconds grace, Actions actions);
    ~CameraRelease();
    CameraRelease(const CameraRelease &) = delete;
    CameraRelease &operator=(const CameraRelease &) = delete;

    void update();

private:
    void graceOver();

    const Actions m_actions;
    std::unique_ptr<RepeatingTimer> m_grace;
    std::unique_ptr<RepeatingTimer> m_probe;
};

} // namespace vistrel::camera
