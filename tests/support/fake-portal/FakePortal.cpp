// A desktop portal of the tests' own: org.freedesktop.portal.Desktop on the session bus
// that DBUS_SESSION_BUS_ADDRESS names, serving the global-shortcuts interface and the
// host registry as documented, with a control interface for the test
// (app.vistrel.test.FakePortal): what was called, what was bound, and Activate to press
// a shortcut. It ends when its standard input closes, so it never outlives its test.
//
// Usage: fake-portal [current|old|no-shortcuts|refuse|garbage|silent]
//   current       registry, request handles on the documented paths (the default)
//   old           no registry; request handles elsewhere than on the documented paths,
//                 each answered before the call's reply names it
//   no-shortcuts  a portal without the global-shortcuts interface
//   refuse        CreateSession answers response 1 (cancelled)
//   garbage       CreateSession answers a Response that is no response
//   silent        CreateSession never answers
#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVirtualObject>
#include <QSocketNotifier>
#include <QStringList>
#include <unistd.h>

namespace {

const QString kPath = QStringLiteral("/org/freedesktop/portal/desktop");
const QString kShortcuts = QStringLiteral("org.freedesktop.portal.GlobalShortcuts");
const QString kRegistry = QStringLiteral("org.freedesktop.host.portal.Registry");
const QString kRequest = QStringLiteral("org.freedesktop.portal.Request");
const QString kControl = QStringLiteral("app.vistrel.test.FakePortal");

class FakePortal final : public QDBusVirtualObject
{
public:
    explicit FakePortal(QString mode) : m_mode(std::move(mode)) {}

    QString introspect(const QString &) const override { return {}; }

    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override
    {
        const QString call = message.interface() + u'.' + message.member();
        if (message.interface() == kControl)
            return control(message, connection);
        if (call == kRegistry + QStringLiteral(".Register") && m_mode != QLatin1String("old")
            && m_mode != QLatin1String("no-shortcuts")) {
            m_calls << QStringLiteral("Register ") + message.arguments().value(0).toString();
            return reply(connection, message, {});
        }
        if (message.interface() == kShortcuts && m_mode != QLatin1String("no-shortcuts")) {
            if (message.member() == QLatin1String("CreateSession"))
                return createSession(message, connection);
            if (message.member() == QLatin1String("BindShortcuts"))
                return bindShortcuts(message, connection);
        }
        connection.send(message.createErrorReply(QDBusError::UnknownMethod, QStringLiteral("No such method ") + call));
        return true;
    }

private:
    // The request object's path: the documented one, or (mode "old") one of its own.
    QString requestPath(const QDBusMessage &message, const QVariantMap &options)
    {
        const QString token = m_mode == QLatin1String("old") ? QStringLiteral("fake%1").arg(++m_requests)
                                                             : options.value(QStringLiteral("handle_token")).toString();
        return kPath + QStringLiteral("/request/") + sender(message) + u'/' + token;
    }
    static QString sender(const QDBusMessage &message)
    {
        QString name = message.service().mid(1);
        return name.replace(u'.', u'_');
    }
    static bool reply(const QDBusConnection &connection, const QDBusMessage &message, const QVariantList &arguments)
    {
        connection.send(message.createReply(arguments));
        return true;
    }
    static void respond(const QDBusConnection &connection, const QDBusMessage &to, const QString &request,
                        const QVariantList &arguments)
    {
        QDBusMessage response =
            QDBusMessage::createTargetedSignal(to.service(), request, kRequest, QStringLiteral("Response"));
        response.setArguments(arguments);
        connection.send(response);
    }

    bool createSession(const QDBusMessage &message, const QDBusConnection &connection)
    {
        m_calls << QStringLiteral("CreateSession");
        const QVariantMap options = qdbus_cast<QVariantMap>(message.arguments().value(0));
        const QString request = requestPath(message, options);
        m_session = kPath + QStringLiteral("/session/") + sender(message) + u'/'
            + options.value(QStringLiteral("session_handle_token")).toString();
        if (m_mode == QLatin1String("refuse"))
            respond(connection, message, request, {uint(1), QVariantMap()});
        else if (m_mode == QLatin1String("garbage"))
            respond(connection, message, request, {QStringLiteral("yes")});
        else if (m_mode != QLatin1String("silent"))
            respond(connection, message, request,
                    {uint(0), QVariantMap{{QStringLiteral("session_handle"), m_session}}});
        return reply(connection, message, {QVariant::fromValue(QDBusObjectPath(request))});
    }

    bool bindShortcuts(const QDBusMessage &message, const QDBusConnection &connection)
    {
        const QVariantList arguments = message.arguments();
        if (message.signature() != QLatin1String("oa(sa{sv})sa{sv}")) {
            connection.send(message.createErrorReply(QDBusError::InvalidArgs, message.signature()));
            return true;
        }
        m_calls << QStringLiteral("BindShortcuts ") + arguments.at(0).value<QDBusObjectPath>().path();
        const QDBusArgument shortcuts = arguments.at(1).value<QDBusArgument>();
        shortcuts.beginArray();
        while (!shortcuts.atEnd()) {
            QString id;
            QVariantMap properties;
            shortcuts.beginStructure();
            shortcuts >> id >> properties;
            shortcuts.endStructure();
            m_bound << id + u'|' + properties.value(QStringLiteral("description")).toString() + u'|'
                    + properties.value(QStringLiteral("preferred_trigger")).toString();
        }
        shortcuts.endArray();
        const QString request = requestPath(message, qdbus_cast<QVariantMap>(arguments.at(3)));
        respond(connection, message, request, {uint(0), QVariantMap()});
        return reply(connection, message, {QVariant::fromValue(QDBusObjectPath(request))});
    }

    bool control(const QDBusMessage &message, const QDBusConnection &connection)
    {
        const QString member = message.member();
        if (member == QLatin1String("Calls"))
            return reply(connection, message, {m_calls});
        if (member == QLatin1String("Bound"))
            return reply(connection, message, {m_bound});
        if (member == QLatin1String("Session"))
            return reply(connection, message, {m_session});
        if (member == QLatin1String("Activate")) {
            // Activate(s session, s id): the portal's Activated signal, as a key press sends it.
            QDBusMessage signal = QDBusMessage::createSignal(kPath, kShortcuts, QStringLiteral("Activated"));
            signal << QVariant::fromValue(QDBusObjectPath(message.arguments().value(0).toString()))
                   << message.arguments().value(1).toString() << qulonglong(1234) << QVariantMap();
            connection.send(signal);
            return reply(connection, message, {});
        }
        connection.send(message.createErrorReply(QDBusError::UnknownMethod, member));
        return true;
    }

    QString m_mode;
    QStringList m_calls;
    QStringList m_bound;
    QString m_session;
    int m_requests = 0;
};

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QString mode = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral("current");
    FakePortal portal(mode);
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.registerVirtualObject(kPath, &portal)
        || !bus.registerService(QStringLiteral("org.freedesktop.portal.Desktop"))) {
        fprintf(stderr, "fake-portal: cannot serve on the session bus: %s\n", qPrintable(bus.lastError().message()));
        return 1;
    }
    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, &app, [&app] {
        char buffer[64];
        if (::read(STDIN_FILENO, buffer, sizeof buffer) <= 0)
            app.quit();
    });
    return app.exec();
}
