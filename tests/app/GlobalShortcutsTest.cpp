// The desktop's global shortcuts, against the real program and a portal of the test's
// own (tests/support/fake-portal) on a private bus.
#include "AppProcess.h"
#include "SessionBus.h"

#include <gtest/gtest.h>

using namespace vistrel::test;

namespace {

const QString kUnavailable = QStringLiteral("[Vistrel] global shortcuts not available: ");

// The fake portal, serving on `bus` in `mode` (see its usage), ended with the test.
class FakePortal
{
public:
    FakePortal(const PrivateBus &bus, const QString &mode) : m_bus(bus.connection())
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), bus.address);
        m_process.setProcessEnvironment(env);
        m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_process.start(QStringLiteral(VISTREL_FAKE_PORTAL), {mode});
    }
    ~FakePortal()
    {
        m_process.closeWriteChannel();
        if (!m_process.waitForFinished(5000))
            m_process.kill();
        m_process.waitForFinished(5000);
    }
    bool serving()
    {
        return QTest::qWaitFor(
            [&] {
                return m_bus.interface()->isServiceRegistered(QStringLiteral("org.freedesktop.portal.Desktop")).value();
            },
            10000);
    }
    QStringList list(const char *method) { return call(method).arguments().value(0).toStringList(); }
    QString session() { return call("Session").arguments().value(0).toString(); }
    // Presses shortcut `id` of `session`; the app reads the signal before any later call.
    void activate(const QString &session, const QString &id) { call("Activate", {session, id}); }

private:
    QDBusMessage call(const char *method, const QVariantList &arguments = {})
    {
        QDBusMessage message = QDBusMessage::createMethodCall(
            QStringLiteral("org.freedesktop.portal.Desktop"), QStringLiteral("/org/freedesktop/portal/desktop"),
            QStringLiteral("app.vistrel.test.FakePortal"), QLatin1String(method));
        message.setArguments(arguments);
        return m_bus.call(message, QDBus::Block, 10000);
    }

    QDBusConnection m_bus;
    QProcess m_process;
};

} // namespace

// Both shortcuts are bound with their suggested triggers, on a current portal and on one
// without the host registry whose request objects lie elsewhere; an activation presses
// the button, one of another session or with an unknown id does nothing.
TEST(GlobalShortcutsTest, BindsBothShortcutsAndActivationsPressTheButtons)
{
    for (const QString &mode : {QStringLiteral("current"), QStringLiteral("old")}) {
        SCOPED_TRACE(mode.toStdString());
        PrivateBus bus;
        ASSERT_FALSE(bus.address.isEmpty()) << "no dbus-daemon";
        FakePortal portal(bus, mode);
        ASSERT_TRUE(portal.serving());
        AppProcess app(kBinary, kFinishedOnboarding, bus.environment());
        ASSERT_TRUE(app.launched()) << app.read("errors").toStdString();
        Vistrel vistrel(bus.connection());
        ASSERT_TRUE(vistrel.published());

        ASSERT_TRUE(QTest::qWaitFor([&] { return portal.list("Bound").size() == 2; }, 10000))
            << app.read("errors").toStdString();
        EXPECT_EQ(portal.list("Bound"),
                  QStringList({QStringLiteral("toggle-freeze|Freeze or release the picture|CTRL+ALT+F"),
                               QStringLiteral("toggle-stutter|Start or stop Stutter|CTRL+ALT+S")}));
        const QString session = portal.session();
        QStringList calls{QStringLiteral("CreateSession"), QStringLiteral("BindShortcuts ") + session};
        if (mode == QLatin1String("current"))
            calls.prepend(QStringLiteral("Register app.vistrel.Vistrel"));
        EXPECT_EQ(portal.list("Calls"), calls);

        portal.activate(QStringLiteral("/org/freedesktop/portal/desktop/session/1_1/other"),
                        QStringLiteral("toggle-freeze"));
        portal.activate(session, QStringLiteral("toggle-nothing"));
        EXPECT_EQ(vistrel.property(QStringLiteral("Frozen")), QVariant(false));
        EXPECT_EQ(vistrel.property(QStringLiteral("Stuttering")), QVariant(false));

        portal.activate(session, QStringLiteral("toggle-freeze"));
        EXPECT_EQ(vistrel.property(QStringLiteral("Frozen")), QVariant(true));
        portal.activate(session, QStringLiteral("toggle-freeze"));
        EXPECT_EQ(vistrel.property(QStringLiteral("Frozen")), QVariant(false));

        portal.activate(session, QStringLiteral("toggle-stutter"));
        EXPECT_EQ(vistrel.property(QStringLiteral("Stuttering")), QVariant(true));
        EXPECT_TRUE(app.waitFor("output", QStringLiteral("Shutter activé : effet freeze toutes les 1s\n")));
        EXPECT_FALSE(app.read("errors").contains(kUnavailable)) << app.read("errors").toStdString();
    }
}

// No portal, a portal without global shortcuts, one that refuses, answers garbage or
// never answers: one line says so and why, and the app works on (a bus call freezes).
TEST(GlobalShortcutsTest, WithoutAUsablePortalOneLineSaysWhyAndTheAppWorks)
{
    struct Case
    {
        QString mode; // empty: no portal on the bus
        QString why;
        int waitMs;
    };
    const QList<Case> cases{
        {QString(), QStringLiteral("no desktop portal on the session bus"), 10000},
        {QStringLiteral("no-shortcuts"), QStringLiteral("the desktop portal has no GlobalShortcuts interface"), 10000},
        {QStringLiteral("refuse"), QStringLiteral("the desktop portal refused CreateSession (response 1, cancelled)"),
         10000},
        {QStringLiteral("garbage"), QStringLiteral("the desktop portal answered CreateSession with \"s\""), 10000},
        {QStringLiteral("silent"), QStringLiteral("the desktop portal did not answer within 25 s"), 35000},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.mode.toStdString());
        PrivateBus bus;
        ASSERT_FALSE(bus.address.isEmpty()) << "no dbus-daemon";
        std::optional<FakePortal> portal;
        if (!c.mode.isEmpty()) {
            portal.emplace(bus, c.mode);
            ASSERT_TRUE(portal->serving());
        }
        AppProcess app(kBinary, kFinishedOnboarding, bus.environment());
        ASSERT_TRUE(app.launched()) << app.read("errors").toStdString();
        Vistrel vistrel(bus.connection());
        ASSERT_TRUE(vistrel.published());

        // Whatever the portal does, the app answers at once.
        EXPECT_EQ(vistrel.call(QStringLiteral("SetFrozen"), {true}).type(), QDBusMessage::ReplyMessage);
        EXPECT_EQ(vistrel.property(QStringLiteral("Frozen")), QVariant(true));

        EXPECT_TRUE(QTest::qWaitFor([&] { return app.read("errors").contains(kUnavailable); }, c.waitMs));
        const QString errors = app.read("errors");
        EXPECT_EQ(errors.count(kUnavailable), 1) << errors.toStdString();
        EXPECT_TRUE(errors.contains(kUnavailable + c.why)) << errors.toStdString();
        EXPECT_EQ(vistrel.call(QStringLiteral("SetFrozen"), {false}).type(), QDBusMessage::ReplyMessage);
        EXPECT_EQ(vistrel.property(QStringLiteral("Frozen")), QVariant(false));
    }
}
