// Where the single-instance socket lives and which socket files the app trusts,
// replaces or leaves alone (the single instance and the lab's control socket).
#include "app/ControlSocket.h"
#include "app/LocalSocketPath.h"
#include "app/SingleInstance.h"

#include "ScriptedFileDialogs.h"
#include "SystemLogCapture.h"
#include "TestHome.h"

#include <QLocalServer>
#include <QLocalSocket>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <gtest/gtest.h>

#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace vistrel;

namespace {

constexpr uid_t kStranger = 65534; // nobody

// Sets an environment variable for the scope; unsets it for an empty value.
class ScopedEnv
{
public:
    ScopedEnv(const char *name, const QString &value) : m_name(name), m_old(qgetenv(name)), m_had(qEnvironmentVariableIsSet(name))
    {
        if (value.isEmpty())
            qunsetenv(name);
        else
            qputenv(name, value.toUtf8());
    }
    ~ScopedEnv() { m_had ? qputenv(m_name, m_old) : qunsetenv(m_name); }

private:
    const char *m_name;
    QByteArray m_old;
    bool m_had;
};

mode_t modeOf(const QString &path)
{
    struct stat st {};
    return ::lstat(QFile::encodeName(path).constData(), &st) == 0 ? st.st_mode : 0;
}

// A socket file that nobody answers, as a crashed server leaves it.
bool makeStaleSocket(const QString &path)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    const QByteArray name = QFile::encodeName(path);
    std::memcpy(address.sun_path, name.constData(), std::min<size_t>(name.size(), sizeof address.sun_path - 1));
    const bool bound = ::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    ::close(fd);
    return bound;
}

// What a stranger, or the user, may have put where a socket of the app belongs.
enum class Squatter { Nothing, RegularFile, Folder, StaleOwnSocket, LiveOwnSocket, LiveStrangersSocket };

struct Scene
{
    const char *name;
    Squatter squatter;
};

const Scene kScenes[] = {
    {"nothing", Squatter::Nothing},
    {"a regular file", Squatter::RegularFile},
    {"a folder", Squatter::Folder},
    {"a socket of ours left by a crash", Squatter::StaleOwnSocket},
    {"a socket of ours that answers", Squatter::LiveOwnSocket},
    {"a stranger's socket that answers", Squatter::LiveStrangersSocket},
};

// Puts the squatter at `path`; a live server is returned so it keeps answering (and
// counts who connects to it). Answers false when this user cannot build the scene.
bool place(Squatter squatter, const QString &path, std::unique_ptr<QLocalServer> &server)
{
    switch (squatter) {
    case Squatter::Nothing: return true;
    case Squatter::RegularFile: return test::writeFile(path, "someone's notes\n");
    case Squatter::Folder: return QDir().mkpath(path);
    case Squatter::StaleOwnSocket: return makeStaleSocket(path);
    case Squatter::LiveOwnSocket:
    case Squatter::LiveStrangersSocket:
        server = std::make_unique<QLocalServer>();
        if (!server->listen(path))
            return false;
        if (squatter == Squatter::LiveStrangersSocket)
            return ::geteuid() == 0 && ::chown(QFile::encodeName(path).constData(), kStranger, kStranger) == 0;
        return true;
    }
    return false;
}

} // namespace

// $XDG_RUNTIME_DIR is used only when it is a folder of this user that nobody else can
// enter; otherwise a 0700 folder in the user's cache, and when even that is taken, no
// single instance at all: every refusal is logged and the app still starts.
TEST(LocalSocketTest, TheSingleInstanceLivesInAPrivateFolderOfTheUser)
{
    QTemporaryDir scratch(QStringLiteral("/tmp/vst-XXXXXX")); // a socket's path must stay short
    const QString cache = scratch.filePath(QStringLiteral("cache"));
    const QString fallback = cache + QStringLiteral("/vistrel-runtime");
    const ScopedEnv cacheHome("XDG_CACHE_HOME", cache);
    const struct { const char *name; mode_t mode; bool strangers; bool link; bool set; bool fallbackTaken; const char *refusal; bool usesRuntime; } cases[] = {
        {"private runtime folder", 0700, false, false, true, false, nullptr, true},
        {"runtime folder open to the group", 0750, false, false, true, false, "(owned by uid %1, mode 0750) — not using it", false},
        {"world-writable runtime folder", 0777, false, false, true, false, "(owned by uid %1, mode 0777) — not using it", false},
        {"runtime folder of a stranger", 0700, true, false, true, false, "(owned by uid 65534, mode 0700) — not using it", false},
        {"link to a private folder", 0700, false, true, true, false, "(not a folder) — not using it", false},
        {"no runtime folder", 0, false, false, false, false, nullptr, false},
        {"no runtime folder, fallback taken", 0, false, false, false, true, nullptr, false},
    };
    int round = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        if (c.strangers && ::geteuid() != 0)
            continue; // only root can make a folder of another user
        QDir(fallback).removeRecursively();
        QFile::remove(fallback);
        const QString real = scratch.filePath(QStringLiteral("runtime%1").arg(++round));
        ASSERT_TRUE(QDir().mkpath(real));
        ASSERT_EQ(::chmod(QFile::encodeName(real).constData(), c.mode ? c.mode : 0700), 0);
        if (c.strangers)
            ASSERT_EQ(::chown(QFile::encodeName(real).constData(), kStranger, kStranger), 0);
        QString runtime = real;
        if (c.link) {
            runtime = real + QStringLiteral("-link");
            ASSERT_TRUE(QFile::link(real, runtime));
        }
        if (c.fallbackTaken) // a file where the fallback folder belongs
            ASSERT_TRUE(test::writeFile(fallback, "x"));
        const ScopedEnv runtimeDir("XDG_RUNTIME_DIR", c.set ? runtime : QString());

        test::SystemLogCapture log;
        const QString key = SingleInstance::defaultKey();
        const QStringList lines = log.lines();
        if (c.fallbackTaken) {
            EXPECT_TRUE(key.isEmpty());
            EXPECT_EQ(lines, (QStringList{QStringLiteral("no private folder for local sockets: ") + fallback
                                              + QStringLiteral(" is not usable (not a folder)"),
                                          QStringLiteral("single instance disabled: a second launch will start another Vistrel")}));
            // Without a name the app runs alone rather than not at all.
            SingleInstance alone(key);
            EXPECT_FALSE(alone.notifyRunningInstance());
            EXPECT_FALSE(alone.listen());
            continue;
        }
        const QString folder = c.usesRuntime ? runtime : fallback;
        EXPECT_EQ(QFileInfo(key).path(), folder);
        EXPECT_TRUE(QFileInfo(key).fileName().startsWith(QStringLiteral("app.vistrel.Vistrel-")));
        EXPECT_EQ(modeOf(folder) & 07777, c.usesRuntime ? c.mode : 0700);
        if (c.refusal)
            EXPECT_EQ(lines, QStringList{QStringLiteral("XDG_RUNTIME_DIR ") + runtime + QStringLiteral(" is not private to this user ")
                                         + QString::fromUtf8(c.refusal).replace(QStringLiteral("%1"), QString::number(::geteuid()))})
                << lines.join(u'\n').toStdString();
        else
            EXPECT_TRUE(lines.isEmpty()) << lines.join(u'\n').toStdString();

        // The name works: the first claims it, the second finds the first.
        SingleInstance first(key);
        test::SystemLogCapture listenLog;
        ASSERT_TRUE(first.listen()) << listenLog.lines().join(u'\n').toStdString();
        QSignalSpy activations(&first, &SingleInstance::activationRequested);
        EXPECT_TRUE(SingleInstance(key).notifyRunningInstance());
        EXPECT_TRUE(activations.wait(5000));
    }
}

// Whatever sits at a socket's path: only our own socket is trusted, only our own dead
// socket is replaced; a file, a folder or a stranger's socket is left alone, logged,
// and neither raises a window nor is connected to.
TEST(LocalSocketTest, OnlyTheUsersOwnSocketsAreTrustedOrReplaced)
{
    for (const Scene &scene : kScenes) {
        SCOPED_TRACE(scene.name);
        QTemporaryDir folder;
        const QString path = folder.filePath(QStringLiteral("socket"));
        std::unique_ptr<QLocalServer> squatter;
        if (!place(scene.squatter, path, squatter)) {
            ASSERT_NE(::geteuid(), 0u) << "cannot build the scene";
            continue;
        }
        int squatterConnections = 0;
        if (squatter)
            QObject::connect(squatter.get(), &QLocalServer::newConnection, [&] { ++squatterConnections; });
        const bool ours = scene.squatter == Squatter::Nothing || scene.squatter == Squatter::StaleOwnSocket;
        const bool live = scene.squatter == Squatter::LiveOwnSocket;
        const QString what = scene.squatter == Squatter::RegularFile ? QStringLiteral("a regular file")
                             : scene.squatter == Squatter::Folder   ? QStringLiteral("a directory")
                             : QStringLiteral("a socket owned by uid 65534, mode %1").arg(modeOf(path) & 07777, 4, 8, QLatin1Char('0'));

        // The single instance: a second launch defers only to a live socket of ours.
        test::SystemLogCapture log;
        SingleInstance instance(path);
        EXPECT_EQ(instance.notifyRunningInstance(), live);
        if (live)
            EXPECT_TRUE(QTest::qWaitFor([&] { return squatterConnections == 1; }, 5000));
        else
            QCoreApplication::processEvents();
        EXPECT_EQ(squatterConnections, live ? 1 : 0);
        EXPECT_EQ(instance.listen(), ours);
        if (ours) {
            EXPECT_TRUE(log.lines().isEmpty()) << log.lines().join(u'\n').toStdString();
            EXPECT_TRUE(SingleInstance(path).notifyRunningInstance()) << "the claimed name answers";
            instance.release();
            EXPECT_FALSE(QFileInfo::exists(path)) << "releasing frees the name";
        } else if (live) {
            EXPECT_EQ(log.lines(), QStringList{QStringLiteral("single instance: cannot listen on ") + path
                                               + QStringLiteral(" (another server is answering on it)")});
        } else {
            EXPECT_EQ(log.lines(), (QStringList{QStringLiteral("single instance: ignoring ") + path
                                                    + QStringLiteral(", not a socket of this user (") + what + QStringLiteral(")"),
                                                QStringLiteral("single instance: cannot listen on ") + path
                                                    + QStringLiteral(" (") + what + QStringLiteral(")")}));
        }

        // The lab's control socket follows the same rule and says why it stays closed.
        const ScopedEnv variable(ControlSocket::kEnvironmentVariable, path);
        test::ScriptedFileDialogs dialogs;
        test::SystemLogCapture controlLog;
        const std::unique_ptr<ControlSocket> control = ControlSocket::fromEnvironment(dialogs, [] { return nullptr; });
        EXPECT_EQ(control != nullptr, ours);
        const QString reason = live ? QStringLiteral("another server is answering on it") : what;
        EXPECT_EQ(controlLog.lines(), QStringList{ours ? QStringLiteral("control socket listening on ") + path
                                                       : QStringLiteral("control socket ") + path + QStringLiteral(" not available: ") + reason});
        if (control) {
            QLocalSocket client;
            client.connectToServer(path);
            ASSERT_TRUE(client.waitForConnected(5000));
            client.write("freeze\n");
            EXPECT_TRUE(QTest::qWaitFor([&] { return client.canReadLine(); }, 5000));
            EXPECT_EQ(client.readLine(), QByteArray("error no main window\n"));
        }

        // Whatever was there is as it was.
        if (scene.squatter == Squatter::RegularFile)
            EXPECT_EQ(test::readFile(path), QByteArray("someone's notes\n"));
        if (scene.squatter == Squatter::Folder)
            EXPECT_TRUE(QFileInfo(path).isDir());
        if (squatter) {
            QLocalSocket client;
            client.connectToServer(path);
            EXPECT_TRUE(client.waitForConnected(5000)) << "the other server still answers";
        }
    }
}
