#include "core/NotificationCenter.h"

#include <QCoreApplication>
#include <QThread>
#include <algorithm>

namespace vistrel {

NotificationCenter &NotificationCenter::defaultCenter()
{
    static NotificationCenter center;
    return center;
}

NotificationCenter::Token NotificationCenter::addObserver(const QString &name, QObject *context,
                                                          std::function<void()> handler)
{
    const Token token = m_nextToken++;
    m_observers.push_back({token, name, QPointer<QObject>(context), context != nullptr, std::move(handler)});
    return token;
}

void NotificationCenter::removeObserver(Token token)
{
    std::erase_if(m_observers, [token](const Observer &o) { return o.token == token; });
}

void NotificationCenter::removeObserver(QObject *context, const QString &name)
{
    std::erase_if(m_observers,
                  [&](const Observer &o) { return o.hasContext && o.context == context && o.name == name; });
}

void NotificationCenter::post(const QString &name)
{
    if (QThread::currentThread() != thread()) {
        QMetaObject::invokeMethod(
            this, [this, name] { deliver(name); }, Qt::QueuedConnection);
        return;
    }
    deliver(name);
}

int NotificationCenter::observerCount(const QString &name) const
{
    return static_cast<int>(
        std::count_if(m_observers.begin(), m_observers.end(), [&](const Observer &o) { return o.name == name; }));
}

void NotificationCenter::deliver(const QString &name)
{
    std::erase_if(m_observers, [](const Observer &o) { return o.hasContext && o.context.isNull(); });
    // Handlers may add or remove observers: run a snapshot.
    std::vector<std::pair<Token, std::function<void()>>> due;
    for (const Observer &o : m_observers)
        if (o.name == name)
            due.emplace_back(o.token, o.handler);
    for (auto &[token, handler] : due) {
        const bool stillObserving = std::any_of(m_observers.begin(), m_observers.end(), [t = token](const Observer &o) {
            return o.token == t && (!o.hasContext || o.context);
        });
        if (stillObserving)
            handler();
    }
}

} // namespace vistrel
