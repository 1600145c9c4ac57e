#include "core/Timers.h"

#include <QTimer>

namespace vistrel {
namespace {

class QtRepeatingTimer final : public RepeatingTimer
{
public:
    QtRepeatingTimer(std::chrono::milliseconds interval, Qt::TimerType type, std::function<void()> tick)
    {
        m_timer.setInterval(interval);
        m_timer.setTimerType(type);
        QObject::connect(&m_timer, &QTimer::timeout, std::move(tick));
    }
    void start() override { m_timer.start(); }
    void stop() override { m_timer.stop(); }
    bool isActive() const override { return m_timer.isActive(); }

private:
    QTimer m_timer;
};

} // namespace

std::unique_ptr<RepeatingTimer> QtTimers::repeating(std::chrono::milliseconds interval, Qt::TimerType type,
                                                    std::function<void()> tick)
{
    return std::make_unique<QtRepeatingTimer>(interval, type, std::move(tick));
}

Timers &timersOr(Timers *given)
{
    static QtTimers qtTimers;
    return given ? *given : qtTimers;
}

} // namespace vistrel
