#pragma once
#include <QtCore/qnamespace.h>
#include <chrono>
#include <functional>
#include <memory>

namespace vistrel {

// A repeating timer: its tick runs every interval while it is active, the first time one
// interval after start(). Starting an active timer starts the interval again from now.
// Main thread only, as is the tick.
class RepeatingTimer
{
public:
    virtual ~RepeatingTimer() = default;
    virtual void start() = 0;
    virtual void stop() = 0;
    virtual bool isActive() const = 0;
};

// Makes the logic's timers: Qt's in the app; tests drive theirs by hand.
class Timers
{
public:
    virtual ~Timers() = default;
    virtual std::unique_ptr<RepeatingTimer> repeating(std::chrono::milliseconds interval, Qt::TimerType type,
                                                      std::function<void()> tick) = 0;
};

// QTimer behind each timer; they belong to the thread that makes them (the main thread).
class QtTimers final : public Timers
{
public:
    std::unique_ptr<RepeatingTimer> repeating(std::chrono::milliseconds interval, Qt::TimerType type,
                                              std::function<void()> tick) override;
};

// `given`, or Qt's timers when none were given.
Timers &timersOr(Timers *given);

} // namespace vistrel
