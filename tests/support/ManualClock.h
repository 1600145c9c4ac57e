#pragma once
#include "core/Platform.h"
#include "core/Timers.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <vector>

namespace vistrel::test {

// A clock the test moves by hand. The timers it makes tick only as it moves, each at the
// moments its interval gives, in time order.
class ManualClock final : public Clock, public Timers
{
public:
    double current = 1000.0;
    double now() const override { return current; }

    void advance(double seconds)
    {
        const double target = current + seconds;
        for (;;) {
            Timer *next = nullptr;
            for (Timer *timer : m_timers)
                if (timer->active && timer->due <= target && (!next || timer->due < next->due))
                    next = timer;
            if (!next)
                break;
            current = next->due;
            next->due += next->interval;
            next->tick(); // may make or destroy timers: the list is searched again
        }
        current = target;
    }

    std::unique_ptr<RepeatingTimer> repeating(std::chrono::milliseconds interval, Qt::TimerType,
                                              std::function<void()> tick) override
    {
        return std::make_unique<Timer>(*this, interval.count() / 1000.0, std::move(tick));
    }

    // How many of the timers made are running with this interval.
    int runningTimers(std::chrono::milliseconds interval) const
    {
        return static_cast<int>(std::count_if(m_timers.begin(), m_timers.end(), [&](const Timer *timer) {
            return timer->active && std::abs(timer->interval - interval.count() / 1000.0) < 1e-9;
        }));
    }

private:
    struct Timer final : RepeatingTimer
    {
        Timer(ManualClock &clock, double interval, std::function<void()> tick)
            : clock(clock), interval(interval), tick(std::move(tick))
        {
            clock.m_timers.push_back(this);
        }
        ~Timer() override { std::erase(clock.m_timers, this); }
        void start() override
        {
            active = true;
            due = clock.current + interval;
        }
        void stop() override { active = false; }
        bool isActive() const override { return active; }

        ManualClock &clock;
        const double interval;
        const std::function<void()> tick;
        bool active = false;
        double due = 0;
    };
    std::vector<Timer *> m_timers;
};

} // namespace vistrel::test
