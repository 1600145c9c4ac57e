// The session-bus interface and the command line, against the real program on a
// private bus.
#include "AppProcess.h"
#include "ColourMovies.h"
#include "SessionBus.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusReply>
#include <QDBusVariant>
#include <QXmlStreamReader>
#include <gtest/gtest.h>

using namespace vistrel::test;

namespace {

// Every PropertiesChanged of the app's interface, in order.
class ChangeRecorder : public QObject
{
    Q_OBJECT
public:
    explicit ChangeRecorder(QDBusConnection bus)
    {
        connected = bus.connect(kService, kPath, kProperties, QStringLiteral("PropertiesChanged"), this,
                                SLOT(record(QString, QVariantMap, QStringList)));
    }
    // Waits for an announcement of `name` with `value`, after those already seen.
    bool waitFor(const QString &name, const QVariant &value)
    {
        return QTest::qWaitFor(
            [&] {
                while (m_seen < changes.size())
                    if (changes.at(m_seen++).value(name, QVariant()) == value)
                        return true;
                return false;
            },
            5000);
    }
    bool announced(const QString &name) const
    {
        return std::any_of(changes.begin(), changes.end(), [&](const QVariantMap &c) { return c.contains(name); });
    }

    bool connected = false;
    QList<QVariantMap> changes;

private Q_SLOTS:
    void record(const QString &interface, const QVariantMap &changed, const QStringList &)
    {
        if (interface == kInterface)
            changes << changed;
    }

private:
    qsizetype m_seen = 0;
};

// The methods (with their argument types) and properties (with their types) of the
// app's interface in an introspection document.
QStringList interfaceMembers(const QString &xml)
{
    QStringList members;
    QXmlStreamReader reader(xml);
    bool inside = false;
    while (!reader.atEnd()) {
        reader.readNext();
        const auto name = reader.name();
        const auto attribute = [&](const char *key) {
            return reader.attributes().value(QLatin1String(key)).toString();
        };
        if (reader.isStartElement() && name == u"interface")
            inside = attribute("name") == kInterface;
        else if (reader.isEndElement() && name == u"interface")
            inside = false;
        else if (inside && reader.isStartElement() && name == u"method")
            members << QStringLiteral("method ") + attribute("name");
        else if (inside && reader.isStartElement() && name == u"arg")
            members.last() += u' ' + attribute("type");
        else if (inside && reader.isStartElement() && name == u"property")
            members
                << QStringLiteral("property %1 %2 %3").arg(attribute("name"), attribute("type"), attribute("access"));
    }
    members.sort();
    return members;
}

struct CommandRun
{
    int exitCode = -1;
    QString out, err;
};

// `vistrel` with `arguments`, as a user types it, with the given environment.
CommandRun runCommand(const QStringList &arguments, const QList<std::pair<QString, QString>> &environment,
                      const QString &home)
{
    QProcess process;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("HOME"), home);
    for (const auto &[name, value] : environment)
        env.insert(name, value);
    process.setProcessEnvironment(env);
    process.start(kBinary, arguments);
    CommandRun run;
    if (!process.waitForFinished(15000))
        process.kill();
    else if (process.exitStatus() == QProcess::NormalExit)
        run.exitCode = process.exitCode();
    run.out = QString::fromUtf8(process.readAllStandardOutput());
    run.err = QString::fromUtf8(process.readAllStandardError());
    return run;
}

} // namespace

// Methods act as the buttons do (same console lines), and PropertiesChanged announces
// each change, also Stutter's own switches; a refused movie changes nothing.
TEST(DBusTest, MethodsWorkTheControlsAndChangesAreAnnounced)
{
    PrivateBus bus;
    ASSERT_FALSE(bus.address.isEmpty()) << "no dbus-daemon";
    AppProcess app(kBinary, kFinishedOnboarding, bus.environment());
    ASSERT_TRUE(app.launched()) << app.read("errors").toStdString();
    Vistrel vistrel(bus.connection());
    ASSERT_TRUE(vistrel.published()) << app.read("errors").toStdString();
    ChangeRecorder changes(bus.connection());
    ASSERT_TRUE(changes.connected);

    EXPECT_EQ(vistrel.property(QStringLiteral("Frozen")), QVariant(false));
    EXPECT_EQ(vistrel.call(QStringLiteral("SetFrozen"), {true}).type(), QDBusMessage::ReplyMessage);
    EXPECT_EQ(vistrel.property(QStringLiteral("Frozen")), QVariant(true));
    EXPECT_TRUE(changes.waitFor(QStringLiteral("Frozen"), true));
    // Already frozen: nothing toggles back.
    vistrel.call(QStringLiteral("SetFrozen"), {true});
    EXPECT_EQ(vistrel.property(QStringLiteral("Frozen")), QVariant(true));
    vistrel.call(QStringLiteral("ToggleFreeze"));
    EXPECT_EQ(vistrel.property(QStringLiteral("Frozen")), QVariant(false));
    EXPECT_TRUE(changes.waitFor(QStringLiteral("Frozen"), false));

    vistrel.call(QStringLiteral("ToggleStutter"));
    EXPECT_EQ(vistrel.property(QStringLiteral("Stuttering")), QVariant(true));
    EXPECT_TRUE(changes.waitFor(QStringLiteral("Stuttering"), true));
    EXPECT_TRUE(app.waitFor("output", QStringLiteral("Shutter activé : effet freeze toutes les 1s\n")));
    // The shutter's own tick, a second later, is announced too.
    EXPECT_TRUE(changes.waitFor(QStringLiteral("Frozen"), true));
    vistrel.call(QStringLiteral("SetStuttering"), {true});
    EXPECT_EQ(vistrel.property(QStringLiteral("Stuttering")), QVariant(true));
    vistrel.call(QStringLiteral("SetStuttering"), {false});
    EXPECT_TRUE(changes.waitFor(QStringLiteral("Stuttering"), false));
    EXPECT_TRUE(app.waitFor("output", QStringLiteral("Shutter désactivé\n")));
    EXPECT_EQ(app.read("output").count(QStringLiteral("Shutter activé")), 1);

    // A path that is no movie: an error, no alert, nothing changes.
    QTemporaryDir files;
    for (const QString &path : {files.filePath(QStringLiteral("missing.mp4")), files.path()}) {
        const QDBusMessage refused = vistrel.call(QStringLiteral("OpenMovie"), {path});
        EXPECT_EQ(refused.errorName(), QStringLiteral("app.vistrel.Vistrel1.Error.NotAMovie")) << path.toStdString();
        EXPECT_TRUE(refused.errorMessage().contains(path)) << refused.errorMessage().toStdString();
    }
    EXPECT_EQ(vistrel.property(QStringLiteral("MoviePlaying")), QVariant(false));
    EXPECT_FALSE(changes.announced(QStringLiteral("MoviePlaying")));

    // A movie plays and stops as through Open Movie… and Stop Movie.
    const QString movie = ColourMovies::make(files.path(), QStringLiteral("colours.mp4"),
                                             {QStringLiteral("-c:v"), QStringLiteral("mpeg4")});
    ASSERT_FALSE(movie.isEmpty());
    EXPECT_EQ(vistrel.call(QStringLiteral("OpenMovie"), {movie}).type(), QDBusMessage::ReplyMessage);
    EXPECT_TRUE(changes.waitFor(QStringLiteral("MoviePlaying"), true));
    vistrel.call(QStringLiteral("StopMovie"));
    EXPECT_TRUE(changes.waitFor(QStringLiteral("MoviePlaying"), false));

    // A camera nobody has: an error naming it, and the camera in use stays.
    const QVariant camera = vistrel.property(QStringLiteral("Camera"));
    const QDBusMessage unknown = vistrel.call(QStringLiteral("SelectCamera"), {QStringLiteral("No Such Camera")});
    EXPECT_EQ(unknown.errorName(), QStringLiteral("app.vistrel.Vistrel1.Error.NoSuchCamera"));
    EXPECT_TRUE(unknown.errorMessage().contains(QStringLiteral("No Such Camera")));
    EXPECT_EQ(vistrel.property(QStringLiteral("Camera")), camera);
    EXPECT_EQ(vistrel.property(QStringLiteral("Cameras")).metaType(), QMetaType::fromType<QStringList>());

    // The interface file shipped for callers describes the interface the app has.
    QDBusMessage introspect = QDBusMessage::createMethodCall(
        kService, kPath, QStringLiteral("org.freedesktop.DBus.Introspectable"), QStringLiteral("Introspect"));
    const QDBusMessage live = bus.connection().call(introspect, QDBus::Block, 10000);
    ASSERT_EQ(live.arguments().size(), 1);
    const QStringList exported = interfaceMembers(live.arguments().first().toString());
    EXPECT_GE(exported.size(), 14);
    EXPECT_EQ(interfaceMembers(QString::fromUtf8(
                  readFile(QStringLiteral(VISTREL_SOURCE_DIR "/resources/dbus/app.vistrel.Vistrel1.xml")))),
              exported);
}

// During onboarding there is no camera window to work: every method says so.
TEST(DBusTest, BeforeTheCameraWindowMethodsAnswerNotReady)
{
    PrivateBus bus;
    ASSERT_FALSE(bus.address.isEmpty()) << "no dbus-daemon";
    AppProcess app(kBinary, QByteArray(), bus.environment());
    ASSERT_TRUE(app.launched());
    ASSERT_TRUE(app.trace().contains(QStringLiteral("state — onboardingComplete=false ")));
    Vistrel vistrel(bus.connection());
    ASSERT_TRUE(vistrel.published());
    for (const char *method : {"ToggleFreeze", "ToggleStutter", "StopMovie", "ShowWindow"}) {
        const QDBusMessage reply = vistrel.call(QLatin1String(method));
        EXPECT_EQ(reply.errorName(), QStringLiteral("app.vistrel.Vistrel1.Error.NotReady")) << method;
    }
    for (const auto &[method, argument] :
         {std::pair{"SetFrozen", QVariant(true)}, std::pair{"SelectCamera", QVariant(QStringLiteral("Camera"))}})
        EXPECT_EQ(vistrel.call(QLatin1String(method), {argument}).errorName(),
                  QStringLiteral("app.vistrel.Vistrel1.Error.NotReady"))
            << method;
    EXPECT_EQ(vistrel.property(QStringLiteral("Frozen")), QVariant(false));
}

// --status before and after --freeze on, through the running instance.
TEST(CommandLineTest, TalksToTheRunningInstance)
{
    PrivateBus bus;
    ASSERT_FALSE(bus.address.isEmpty()) << "no dbus-daemon";
    AppProcess app(kBinary, kFinishedOnboarding, bus.environment());
    ASSERT_TRUE(app.launched());
    ASSERT_TRUE(Vistrel(bus.connection()).published());
    const QString home = app.home.path();

    const CommandRun before = runCommand({QStringLiteral("--status")}, bus.environment(), home);
    EXPECT_EQ(before.exitCode, 0) << before.err.toStdString();
    EXPECT_TRUE(before.out.startsWith(QStringLiteral("frozen=false stuttering=false movie=false camera=")))
        << before.out.toStdString();
    EXPECT_TRUE(before.out.endsWith(QStringLiteral(" streaming=false\n"))) << before.out.toStdString();

    const CommandRun freeze = runCommand({QStringLiteral("--freeze"), QStringLiteral("on")}, bus.environment(), home);
    EXPECT_EQ(freeze.exitCode, 0) << freeze.err.toStdString();
    const CommandRun after = runCommand({QStringLiteral("--status")}, bus.environment(), home);
    EXPECT_TRUE(after.out.startsWith(QStringLiteral("frozen=true stuttering=false movie=false camera=")))
        << after.out.toStdString();

    // A refusal of the instance is told and exits 1; the state stays.
    const CommandRun movie =
        runCommand({QStringLiteral("--movie"), QStringLiteral("no-such.mp4")}, bus.environment(), home);
    EXPECT_EQ(movie.exitCode, 1);
    EXPECT_TRUE(movie.err.contains(QStringLiteral("cannot be played: it does not exist."))) << movie.err.toStdString();
    EXPECT_EQ(app.trace().count(QStringLiteral("didFinishLaunching ENTER")), 1) << "no second app started";
}

// Without an instance, or with bad arguments, nothing starts: exit 2 or 64 with a message.
TEST(CommandLineTest, NoInstanceAndBadArgumentsAreRefused)
{
    PrivateBus bus;
    ASSERT_FALSE(bus.address.isEmpty()) << "no dbus-daemon";
    QTemporaryDir home(QStringLiteral("/tmp/vsh-XXXXXX"));
    const QList<std::pair<QString, QString>> noBus{
        {QStringLiteral("DBUS_SESSION_BUS_ADDRESS"),
         QStringLiteral("unix:path=") + home.filePath(QStringLiteral("none"))}};
    for (const auto &environment : {bus.environment(), noBus}) {
        const CommandRun run = runCommand({QStringLiteral("--freeze"), QStringLiteral("on")}, environment, home.path());
        EXPECT_EQ(run.exitCode, 2);
        EXPECT_TRUE(run.err.contains(QStringLiteral("Vistrel is not running"))) << run.err.toStdString();
    }
    EXPECT_FALSE(QFile::exists(home.filePath(QStringLiteral("vistrel-trace.log")))) << "the app was started";

    const QList<QStringList> bad{{QStringLiteral("--freeze"), QStringLiteral("maybe")},
                                 {QStringLiteral("--stutter")},
                                 {QStringLiteral("--frieze"), QStringLiteral("on")},
                                 {QStringLiteral("status")},
                                 {QStringLiteral("--movie"), QString()}};
    for (const QStringList &arguments : bad) {
        const CommandRun run = runCommand(arguments, bus.environment(), home.path());
        EXPECT_EQ(run.exitCode, 64) << arguments.join(u' ').toStdString();
        EXPECT_TRUE(run.err.contains(QStringLiteral("Usage:"))) << run.err.toStdString();
    }
    const CommandRun help = runCommand({QStringLiteral("--help")}, bus.environment(), home.path());
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_TRUE(help.out.contains(QStringLiteral("--stop-movie")));
}

#include "DBusTest.moc"
