#include "app/GlobalShortcuts.h"

#include "core/SystemLog.h"

#include <QDBusArgument>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QRandomGenerator>
#include <QRegularExpression>

namespace {

// One element of BindShortcuts' a(sa{sv}): the id and its description and trigger.
struct ShortcutRequest
{
    QString id;
    QVariantMap properties;
};

QDBusArgument &operator<<(QDBusArgument &argument, const ShortcutRequest &shortcut)
{
    argument.beginStructure();
    argument << shortcut.id << shortcut.properties;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, ShortcutRequest &shortcut)
{
    argument.beginStructure();
    argument >> shortcut.id >> shortcut.properties;
    argument.endStructure();
    return argument;
}

} // namespace

Q_DECLARE_METATYPE(ShortcutRequest)

namespace vistrel {

namespace {

const QString kRequestInterface = QStringLiteral("org.freedesktop.portal.Request");
const QString kRegistryInterface = QStringLiteral("org.freedesktop.host.portal.Registry");
const QString kAppId = QStringLiteral("app.vistrel.Vistrel");

// The portal's Response codes past 0 (done).
QString responseMeaning(uint response)
{
    switch (response) {
    case 1: return QStringLiteral("cancelled");
    case 2: return QStringLiteral("ended");
    default: return QStringLiteral("unknown answer");
    }
}

// Why a call to the portal failed, as the log line tells it.
QString callFailure(const QString &method, const QDBusError &error)
{
    switch (error.type()) {
    case QDBusError::ServiceUnknown: return QStringLiteral("no desktop portal on the session bus");
    case QDBusError::UnknownMethod:
    case QDBusError::UnknownInterface:
    case QDBusError::UnknownObject: return QStringLiteral("the desktop portal has no GlobalShortcuts interface");
    case QDBusError::NoReply:
    case QDBusError::Timeout:
    case QDBusError::TimedOut: return QStringLiteral("the desktop portal did not answer ") + method;
    default: return method + QStringLiteral(" failed: ") + error.name() + QStringLiteral(": ") + error.message();
    }
}

// The session handle of CreateSession's results: documented as a string, some portals
// send an object path.
QString sessionHandle(const QVariantMap &results)
{
    const QVariant handle = results.value(QStringLiteral("session_handle"));
    if (handle.metaType() == QMetaType::fromType<QDBusObjectPath>())
        return handle.value<QDBusObjectPath>().path();
    if (handle.metaType() == QMetaType::fromType<QString>())
        return handle.toString();
    return {};
}

bool isObjectPath(const QString &path)
{
    static const QRegularExpression valid(QStringLiteral("^/([A-Za-z0-9_]+(/[A-Za-z0-9_]+)*)?$"));
    return valid.match(path).hasMatch();
}

} // namespace

GlobalShortcuts::GlobalShortcuts(std::function<void()> toggleFreeze, std::function<void()> toggleStutter,
                                 Timers &timers, QObject *parent)
    : QObject(parent), m_toggleFreeze(std::move(toggleFreeze)), m_toggleStutter(std::move(toggleStutter))
{
    qDBusRegisterMetaType<ShortcutRequest>();
    qDBusRegisterMetaType<QList<ShortcutRequest>>();
    m_giveUp = timers.repeating(kGiveUpAfter, Qt::VeryCoarseTimer, [this] {
        giveUp(QStringLiteral("the desktop portal did not answer within %1 s").arg(kGiveUpAfter.count()));
    });
}

GlobalShortcuts::~GlobalShortcuts()
{
    unsubscribe();
}

void GlobalShortcuts::start(QDBusConnection bus)
{
    if (m_step != Step::Idle)
        return;
    if (!bus.isConnected()) {
        giveUp(QStringLiteral("no session bus"));
        return;
    }
    m_bus = bus;
    m_step = Step::Registering;
    m_giveUp->start();
    // Requests are answered on /…/request/SENDER/TOKEN, SENDER being this connection's
    // unique name without the ':' and with '_' for '.'. One subscription, made before the
    // first request, hears them all; the paths awaited pick out the answers. Activated
    // is subscribed to now as well and acted on once there is a session.
    QString sender = m_bus.baseService().mid(1);
    sender.replace(u'.', u'_');
    m_requestPrefix = QLatin1String(kPortalPath) + QStringLiteral("/request/") + sender + u'/';
    m_bus.connect(QLatin1String(kPortalService), QString(), kRequestInterface, QStringLiteral("Response"), this,
                  SLOT(requestAnswered(QDBusMessage)));
    m_bus.connect(QLatin1String(kPortalService), QLatin1String(kPortalPath), QLatin1String(kInterface),
                  QStringLiteral("Activated"), this, SLOT(activated(QDBusMessage)));

    // A refusal here (the portal knows the app otherwise, or has no registry) changes
    // nothing: the session is asked for all the same. Only a missing portal ends it.
    QDBusMessage registration = QDBusMessage::createMethodCall(
        QLatin1String(kPortalService), QLatin1String(kPortalPath), kRegistryInterface, QStringLiteral("Register"));
    registration << kAppId << QVariantMap();
    auto *call = new QDBusPendingCallWatcher(m_bus.asyncCall(registration), this);
    connect(call, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher *call) {
        call->deleteLater();
        if (m_step != Step::Registering)
            return;
        if (call->isError() && call->error().type() == QDBusError::ServiceUnknown)
            giveUp(callFailure(QStringLiteral("Register"), call->error()));
        else
            createSession();
    });
}

void GlobalShortcuts::createSession()
{
    m_step = Step::CreatingSession;
    QVariantMap options;
    options.insert(QStringLiteral("session_handle_token"), newToken());
    sendRequest(QStringLiteral("CreateSession"), {}, options);
}

void GlobalShortcuts::bindShortcuts()
{
    m_step = Step::Binding;
    const QList<ShortcutRequest> shortcuts{
        {QLatin1String(kFreezeId),
         {{QStringLiteral("description"), QStringLiteral("Freeze or release the picture")},
          {QStringLiteral("preferred_trigger"), QStringLiteral("CTRL+ALT+F")}}},
        {QLatin1String(kStutterId),
         {{QStringLiteral("description"), QStringLiteral("Start or stop Stutter")},
          {QStringLiteral("preferred_trigger"), QStringLiteral("CTRL+ALT+S")}}}};
    sendRequest(QStringLiteral("BindShortcuts"),
                {QVariant::fromValue(QDBusObjectPath(m_session)), QVariant::fromValue(shortcuts), QString()}, {});
}

void GlobalShortcuts::sendRequest(const QString &method, QVariantList arguments, QVariantMap options)
{
    const QString token = newToken();
    options.insert(QStringLiteral("handle_token"), token);
    arguments << options;
    // The request object's path is known before the call, so its answer cannot be missed.
    listenForResponse(m_requestPrefix + token);

    QDBusMessage message = QDBusMessage::createMethodCall(QLatin1String(kPortalService), QLatin1String(kPortalPath),
                                                          QLatin1String(kInterface), method);
    message.setArguments(arguments);
    auto *call = new QDBusPendingCallWatcher(m_bus.asyncCall(message), this);
    const Step step = m_step;
    connect(call, &QDBusPendingCallWatcher::finished, this, [this, method, step](QDBusPendingCallWatcher *call) {
        call->deleteLater();
        // An answer that already came (or a give-up) makes the reply moot.
        if (m_step != step)
            return;
        if (call->isError()) {
            giveUp(callFailure(method, call->error()));
            return;
        }
        const QDBusMessage reply = call->reply();
        if (reply.signature() != QLatin1String("o")) {
            giveUp(QStringLiteral("the desktop portal answered ") + method + QStringLiteral(" with \"")
                   + reply.signature() + QStringLiteral("\" instead of a request handle"));
            return;
        }
        // Older portals may use another path than the predicted one.
        listenForResponse(reply.arguments().constFirst().value<QDBusObjectPath>().path());
    });
}

void GlobalShortcuts::listenForResponse(const QString &requestPath)
{
    m_requestPaths.insert(requestPath);
    // The answer may have come before the reply that named its request.
    const QDBusMessage early = m_earlyResponses.value(requestPath);
    if (early.type() == QDBusMessage::SignalMessage)
        requestAnswered(early);
}

void GlobalShortcuts::stopListening()
{
    m_requestPaths.clear();
    m_earlyResponses.clear();
}

void GlobalShortcuts::requestAnswered(const QDBusMessage &response)
{
    if (!m_requestPaths.contains(response.path())) {
        // Kept for a reply still to come that names a request path of its own; only
        // answers to this connection's requests, and only a few.
        if (response.path().startsWith(m_requestPrefix) && m_earlyResponses.size() < 8)
            m_earlyResponses.insert(response.path(), response);
        return;
    }
    stopListening();
    const QString step =
        m_step == Step::CreatingSession ? QStringLiteral("CreateSession") : QStringLiteral("BindShortcuts");
    if (response.signature() != QLatin1String("ua{sv}")) {
        giveUp(QStringLiteral("the desktop portal answered ") + step + QStringLiteral(" with \"") + response.signature()
               + QStringLiteral("\" instead of a response"));
        return;
    }
    const uint code = response.arguments().at(0).toUInt();
    if (code != 0) {
        giveUp(QStringLiteral("the desktop portal refused ") + step
               + QStringLiteral(" (response %1, %2)").arg(code).arg(responseMeaning(code)));
        return;
    }
    if (m_step == Step::CreatingSession) {
        const QVariantMap results = qdbus_cast<QVariantMap>(response.arguments().at(1));
        m_session = sessionHandle(results);
        if (m_session.isEmpty() || !isObjectPath(m_session)) {
            giveUp(QStringLiteral("the desktop portal created a session without a usable handle"));
            return;
        }
        bindShortcuts();
    } else if (m_step == Step::Binding) {
        m_step = Step::Bound;
        m_giveUp->stop();
    }
}

void GlobalShortcuts::activated(const QDBusMessage &signal)
{
    if ((m_step != Step::Binding && m_step != Step::Bound) || signal.signature() != QLatin1String("osta{sv}"))
        return;
    const QList<QVariant> arguments = signal.arguments();
    // Other sessions (another program's, an older one of ours) are not ours to act on.
    if (arguments.at(0).value<QDBusObjectPath>().path() != m_session)
        return;
    const QString id = arguments.at(1).toString();
    if (id == QLatin1String(kFreezeId) && m_toggleFreeze)
        m_toggleFreeze();
    else if (id == QLatin1String(kStutterId) && m_toggleStutter)
        m_toggleStutter();
}

void GlobalShortcuts::giveUp(const QString &why)
{
    if (m_step == Step::Unavailable)
        return;
    m_step = Step::Unavailable;
    m_giveUp->stop();
    stopListening();
    unsubscribe();
    systemLog(QStringLiteral("global shortcuts not available: ") + why);
}

void GlobalShortcuts::unsubscribe()
{
    if (!m_bus.isConnected())
        return;
    m_bus.disconnect(QLatin1String(kPortalService), QString(), kRequestInterface, QStringLiteral("Response"), this,
                     SLOT(requestAnswered(QDBusMessage)));
    m_bus.disconnect(QLatin1String(kPortalService), QLatin1String(kPortalPath), QLatin1String(kInterface),
                     QStringLiteral("Activated"), this, SLOT(activated(QDBusMessage)));
}

QString GlobalShortcuts::newToken()
{
    // Unique per call and per process, so two runs never share a request path.
    return QStringLiteral("vistrel_%1_%2").arg(QRandomGenerator::global()->generate()).arg(++m_tokens);
}

} // namespace vistrel
