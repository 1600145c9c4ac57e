#pragma once
// A private session bus and a client of the app's interface on it, for tests that run
// the real program against a bus of their own.
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QProcess>
#include <QTest>

namespace vistrel::test {

inline const QString kService = QStringLiteral("app.vistrel.Vistrel");
inline const QString kPath = QStringLiteral("/app/vistrel/Vistrel");
inline const QString kInterface = QStringLiteral("app.vistrel.Vistrel1");
inline const QString kProperties = QStringLiteral("org.freedesktop.DBus.Properties");

// A session bus of the test's own, ended with it.
class PrivateBus
{
public:
    PrivateBus()
    {
        m_daemon.start(QStringLiteral("dbus-daemon"),
                       {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--print-address")});
        if (m_daemon.waitForReadyRead(10000))
            address = QString::fromUtf8(m_daemon.readLine()).trimmed();
    }
    ~PrivateBus()
    {
        QDBusConnection::disconnectFromBus(address);
        m_daemon.kill();
        m_daemon.waitForFinished(5000);
    }
    QDBusConnection connection() const { return QDBusConnection::connectToBus(address, address); }
    QList<std::pair<QString, QString>> environment() const
    {
        return {{QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), address}};
    }

    QString address;

private:
    QProcess m_daemon;
};

class Vistrel
{
public:
    explicit Vistrel(QDBusConnection bus) : m_bus(std::move(bus)) {}
    QDBusMessage call(const QString &method, const QVariantList &arguments = {})
    {
        QDBusMessage message = QDBusMessage::createMethodCall(kService, kPath, kInterface, method);
        message.setArguments(arguments);
        return m_bus.call(message, QDBus::Block, 10000);
    }
    QVariant property(const QString &name)
    {
        QDBusMessage message = QDBusMessage::createMethodCall(kService, kPath, kProperties, QStringLiteral("Get"));
        message.setArguments({kInterface, name});
        const QDBusMessage reply = m_bus.call(message, QDBus::Block, 10000);
        return reply.arguments().isEmpty() ? QVariant() : qdbus_cast<QDBusVariant>(reply.arguments().first()).variant();
    }
    bool published()
    {
        return QTest::qWaitFor([&] { return m_bus.interface()->isServiceRegistered(kService).value(); }, 10000);
    }

private:
    QDBusConnection m_bus;
};

} // namespace vistrel::test
