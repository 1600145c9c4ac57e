#pragma once
#include "core/Timers.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QHash>
#include <QObject>
#include <QSet>
#include <QString>
#include <functional>
#include <memory>

class QDBusPendingCallWatcher;

namespace vistrel {

// Freeze and Stutter on keys that work whichever window has the focus, through the
// desktop portal's global shortcuts (org.freedesktop.portal.GlobalShortcuts on
// org.freedesktop.portal.Desktop, /org/freedesktop/portal/desktop).
//
// start() registers the app with the portal's host registry (newer portals identify an
// unsandboxed app that way; older ones lack it, which is fine), creates a session and
// binds "toggle-freeze" (suggested Ctrl+Alt+F) and "toggle-stutter" (suggested
// Ctrl+Alt+S) to it. The portal answers each request with a Response signal on a
// request object whose path is known before the call; Response is listened to before
// the first call, so an early answer is not missed, and an answer on another path that
// the call's reply names is taken too. From then on the session's Activated signal runs
// the matching callback.
//
// Where there is no portal, the portal has no global shortcuts, refuses a step, answers
// something unreadable or has not finished within kGiveUpAfter, one line on the system
// log says "global shortcuts not available: " and why, and the app goes on without.
//
// Every call to the portal is asynchronous: nothing here waits for it.
//
// Threads: the main thread, for everything, including the callbacks (run from the
// event loop when the portal's signal arrives).
class GlobalShortcuts final : public QObject
{
    Q_OBJECT
public:
    static constexpr const char *kPortalService = "org.freedesktop.portal.Desktop";
    static constexpr const char *kPortalPath = "/org/freedesktop/portal/desktop";
    static constexpr const char *kInterface = "org.freedesktop.portal.GlobalShortcuts";
    static constexpr const char *kFreezeId = "toggle-freeze";
    static constexpr const char *kStutterId = "toggle-stutter";
    static constexpr std::chrono::seconds kGiveUpAfter{25};

    GlobalShortcuts(std::function<void()> toggleFreeze, std::function<void()> toggleStutter, Timers &timers,
                    QObject *parent = nullptr);
    ~GlobalShortcuts() override;

    // Starts talking to the portal on `bus`; once only.
    void start(QDBusConnection bus);
    // The shortcuts are bound and their activations are acted on.
    bool isBound() const { return m_step == Step::Bound; }

private Q_SLOTS:
    void requestAnswered(const QDBusMessage &response);
    void activated(const QDBusMessage &signal);

private:
    enum class Step { Idle, Registering, CreatingSession, Binding, Bound, Unavailable };

    void createSession();
    void bindShortcuts();
    // Sends a portal request whose options carry a fresh handle_token; its Response is
    // listened for before it goes out.
    void sendRequest(const QString &method, QVariantList arguments, QVariantMap options);
    void requestSent(QDBusPendingCallWatcher *call);
    void listenForResponse(const QString &requestPath);
    void stopListening();
    void unsubscribe();
    void giveUp(const QString &why);
    QString newToken();

    std::function<void()> m_toggleFreeze;
    std::function<void()> m_toggleStutter;
    std::unique_ptr<RepeatingTimer> m_giveUp;
    QDBusConnection m_bus{QString()};
    Step m_step = Step::Idle;
    QString m_requestPrefix;                       // where this connection's requests live
    QSet<QString> m_requestPaths;                  // the request objects whose Response is awaited
    QHash<QString, QDBusMessage> m_earlyResponses; // answers to requests not yet known
    QString m_session;
    quint32 m_tokens = 0;
};

} // namespace vistrel
