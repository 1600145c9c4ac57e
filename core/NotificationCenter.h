#pragma once
#include <QObject>
#include <QPointer>
#include <QString>
#include <functional>
#include <vector>

namespace vistrel {

inline const QString kExtensionInstallationComplete = QStringLiteral("ExtensionInstallationComplete");
inline const QString kMainWindowShown = QStringLiteral("MainWindowShown");

// A process-wide centre of named notifications. Observers always run on the main
// thread: a post from another thread is delivered there by a queued call.
class NotificationCenter : public QObject
{
    Q_OBJECT
public:
    using Token = quint64;

    static NotificationCenter &defaultCenter();

    // The observer is dropped automatically when `context` is destroyed.
    Token addObserver(const QString &name, QObject *context, std::function<void()> handler);
    void removeObserver(Token token);
    void removeObserver(QObject *context, const QString &name);
    void post(const QString &name);
    int observerCount(const QString &name) const;

private:
    struct Observer
    {
        Token token;
        QString name;
        QPointer<QObject> context;
        bool hasContext;
        std::function<void()> handler;
    };
    void deliver(const QString &name);

    std::vector<Observer> m_observers;
    Token m_nextToken = 1;
};

} // namespace vistrel
