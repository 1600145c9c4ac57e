#include "app/CommandLine.h"

#include "app/DBusService.h"
#include "core/Bundle.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QFileInfo>
#include <cstdio>
#include <optional>

namespace vistrel {
namespace {

void print(FILE *stream, const QString &text)
{
    std::fputs(text.toLocal8Bit().constData(), stream);
    std::fflush(stream);
}

// One call to the running instance; an error reply is told on standard error.
class Instance
{
public:
    explicit Instance(QDBusConnection bus) : m_bus(std::move(bus)) {}

    bool isRunning() const
    {
        return m_bus.isConnected() && m_bus.interface()
            && m_bus.interface()->isServiceRegistered(QLatin1String(DBusService::kServiceName)).value();
    }

    std::optional<QDBusMessage> call(const QString &interface, const QString &method, const QVariantList &arguments)
    {
        QDBusMessage message = QDBusMessage::createMethodCall(
            QLatin1String(DBusService::kServiceName), QLatin1String(DBusService::kObjectPath), interface, method);
        message.setArguments(arguments);
        message.setAutoStartService(false);
        const QDBusMessage reply = m_bus.call(message, QDBus::Block, 10000);
        if (reply.type() == QDBusMessage::ErrorMessage) {
            print(stderr, QStringLiteral("vistrel: ") + reply.errorMessage() + u'\n');
            return std::nullopt;
        }
        return reply;
    }

    bool call(const QString &method, const QVariantList &arguments = {})
    {
        return call(QLatin1String(DBusService::kInterface), method, arguments).has_value();
    }

private:
    QDBusConnection m_bus;
};

QString yesNo(const QVariant &value)
{
    return value.toBool() ? QStringLiteral("true") : QStringLiteral("false");
}

// "on", "off" or "toggle" of --freeze and --stutter.
bool sendSwitch(Instance &instance, const QString &value, const QString &set, const QString &toggle)
{
    if (value == u"toggle")
        return instance.call(toggle);
    return instance.call(set, {value == u"on"});
}

} // namespace

int runCommandLine(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("vistrel"));
    QCoreApplication::setApplicationVersion(
        Bundle::main().infoDictionary.value(QStringLiteral("CFBundleShortVersionString")).toString());

    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Without options, starts Vistrel. With options, controls the running Vistrel."));
    const QCommandLineOption freeze(QStringLiteral("freeze"),
                                    QStringLiteral("Freeze the picture, release it, or switch."),
                                    QStringLiteral("on|off|toggle"));
    const QCommandLineOption stutter(
        QStringLiteral("stutter"),
        QStringLiteral("Start or stop Stutter (freeze and release once a second), or switch."),
        QStringLiteral("on|off|toggle"));
    const QCommandLineOption movie(QStringLiteral("movie"), QStringLiteral("Play a movie in place of the camera."),
                                   QStringLiteral("PATH"));
    const QCommandLineOption stopMovie(QStringLiteral("stop-movie"),
                                       QStringLiteral("Stop the movie; the camera comes back."));
    const QCommandLineOption status(
        QStringLiteral("status"),
        QStringLiteral("Print frozen=… stuttering=… movie=… camera=… streaming=… on one line."));
    parser.addOptions({freeze, stutter, movie, stopMovie, status});
    const QCommandLineOption help = parser.addHelpOption();
    const QCommandLineOption version = parser.addVersionOption();

    const auto usage = [&parser](const QString &why) {
        print(stderr, QStringLiteral("vistrel: ") + why + QStringLiteral("\n\n") + parser.helpText());
        return ExitUsage;
    };
    if (!parser.parse(QCoreApplication::arguments()))
        return usage(parser.errorText());
    if (!parser.positionalArguments().isEmpty())
        return usage(QStringLiteral("unexpected argument: ") + parser.positionalArguments().constFirst());
    if (parser.isSet(help)) {
        print(stdout, parser.helpText());
        return ExitDone;
    }
    if (parser.isSet(version)) {
        print(stdout, QStringLiteral("vistrel ") + QCoreApplication::applicationVersion() + u'\n');
        return ExitDone;
    }
    const QStringList switches{QStringLiteral("on"), QStringLiteral("off"), QStringLiteral("toggle")};
    for (const QCommandLineOption *option : {&freeze, &stutter}) {
        if (parser.values(*option).size() > 1)
            return usage(QStringLiteral("--%1 given more than once").arg(option->names().constFirst()));
        if (parser.isSet(*option) && !switches.contains(parser.value(*option)))
            return usage(QStringLiteral("--%1 takes on, off or toggle, not \u201c%2\u201d")
                             .arg(option->names().constFirst(), parser.value(*option)));
    }
    if (parser.values(movie).size() > 1)
        return usage(QStringLiteral("--movie given more than once"));
    if (parser.isSet(movie) && parser.value(movie).isEmpty())
        return usage(QStringLiteral("--movie needs a file path"));
    if (!parser.isSet(freeze) && !parser.isSet(stutter) && !parser.isSet(movie) && !parser.isSet(stopMovie)
        && !parser.isSet(status))
        return usage(QStringLiteral("nothing to do"));

    Instance instance(QDBusConnection::sessionBus());
    if (!instance.isRunning()) {
        print(stderr,
              QStringLiteral("vistrel: Vistrel is not running (nobody owns %1 on the session bus)\n")
                  .arg(QLatin1String(DBusService::kServiceName)));
        return ExitNoInstance;
    }

    // In the order a user would press the buttons; the first refusal ends the run.
    if (parser.isSet(freeze)
        && !sendSwitch(instance, parser.value(freeze), QStringLiteral("SetFrozen"), QStringLiteral("ToggleFreeze")))
        return ExitRefused;
    if (parser.isSet(stutter)
        && !sendSwitch(instance, parser.value(stutter), QStringLiteral("SetStuttering"),
                       QStringLiteral("ToggleStutter")))
        return ExitRefused;
    // The instance runs in another folder: a relative path is this shell's.
    if (parser.isSet(movie)
        && !instance.call(QStringLiteral("OpenMovie"), {QFileInfo(parser.value(movie)).absoluteFilePath()}))
        return ExitRefused;
    if (parser.isSet(stopMovie) && !instance.call(QStringLiteral("StopMovie")))
        return ExitRefused;
    if (parser.isSet(status)) {
        const auto reply = instance.call(QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("GetAll"),
                                         {QLatin1String(DBusService::kInterface)});
        if (!reply || reply->arguments().isEmpty())
            return ExitRefused;
        const QVariantMap properties = qdbus_cast<QVariantMap>(reply->arguments().constFirst());
        print(stdout,
              QStringLiteral("frozen=%1 stuttering=%2 movie=%3 camera=%4 streaming=%5\n")
                  .arg(yesNo(properties.value(QStringLiteral("Frozen"))),
                       yesNo(properties.value(QStringLiteral("Stuttering"))),
                       yesNo(properties.value(QStringLiteral("MoviePlaying"))),
                       properties.value(QStringLiteral("Camera")).toString(),
                       yesNo(properties.value(QStringLiteral("Streaming")))));
    }
    return ExitDone;
}

} // namespace vistrel
