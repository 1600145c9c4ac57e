// Where the single-instance socket lives and which socket files the app trusts,
// replaces or leaves alone.
#include "app/SingleInstance.h"

#include "SystemLogCapture.h"
#include "TestHome.h"

#include <QLocalServer>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace vistrel;

namespace {

constexpr uid_t kStranger = 65534; // nobody

// Sets an environment variable (unsets it for an empty value) until the scope ends.
struct ScopedEnv
{
    ScopedEnv(const char *name, const QString &value)
        : name(name), old(qgetenv(name)), had(qEnvironmentVariableIsSet(name))
    {
        value.isEmpty() ? qunsetenv(name) : qputenv(name, value.toUtf8());
    }
    ~ScopedEnv() { had ? qputenv(name, old) : qunsetenv(name); }
    const char *name;
    QByteArray old;
    bool had;
};

// A socket file that nobody answers, as a crashed server leaves it.
bool makeStaleSocket(const QString &path)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const QByteArray name = QFile::encodeName(path);
    std::memcpy(address.sun_path, name.constData(), std::min<size_t>(name.size(), sizeof address.sun_path - 1));
    const bool bound = ::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    ::close(fd);
    return bound;
}

} // namespace

// $XDG_RUNTIME_DIR only when it is a folder of this user that nobody else can enter; else a
// 0700 folder in the cache; when that is taken too, no single instance. Refusals are logged.
TEST(LocalSocketTest, TheSingleInstanceLivesInAPrivateFolderOfTheUser)
{
    QTemporaryDir scratch(QStringLiteral("/tmp/vst-XXXXXX")); // a socket's path must stay short
    const ScopedEnv cacheHome("XDG_CACHE_HOME", scratch.filePath(QStringLiteral("cache")));
    const QString fallback = scratch.filePath(QStringLiteral("cache/vistrel-runtime"));
    const struct
    {
        const char *name;
        mode_t mode;
        bool stranger, link, set, fallbackTaken;
        const char *refusal;
    } cases[] = {
        {"private runtime folder", 0700, false, false, true, false, nullptr},
        {"runtime folder open to the group", 0750, false, false, true, false, "owned by uid %1, mode 0750"},
        {"runtime folder of a stranger", 0700, true, false, true, false, "owned by uid 65534, mode 0700"},
        {"link to a private folder", 0700, false, true, true, false, "not a folder"},
        {"no runtime folder", 0700, false, false, false, false, nullptr},
        {"no runtime folder, fallback taken", 0700, false, false, false, true, nullptr},
    };
    int round = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        if (c.stranger && ::geteuid() != 0)
            continue; // only root can make a folder of another user
        QDir(fallback).removeRecursively();
        QFile::remove(fallback);
        const QString real = scratch.filePath(QStringLiteral("runtime%1").arg(++round));
        const QString runtime = c.link ? real + QStringLiteral("-link") : real;
        ASSERT_TRUE(QDir().mkpath(real));
        ASSERT_EQ(::chmod(QFile::encodeName(real).constData(), c.mode), 0);
        ASSERT_TRUE(!c.stranger || ::chown(QFile::encodeName(real).constData(), kStranger, kStranger) == 0);
        ASSERT_TRUE(!c.link || QFile::link(real, runtime));
        ASSERT_TRUE(!c.fallbackTaken || test::writeFile(fallback, "x")); // a file where the fallback folder belongs
        const ScopedEnv runtimeDir("XDG_RUNTIME_DIR", c.set ? runtime : QString());

        test::SystemLogCapture log;
        const QString key = SingleInstance::defaultKey();
        QStringList expected;
        if (c.refusal)
            expected << QStringLiteral("XDG_RUNTIME_DIR ") + runtime + QStringLiteral(" is not private to this user (")
                    + QString::fromUtf8(c.refusal).replace(QStringLiteral("%1"), QString::number(::geteuid()))
                    + QStringLiteral(") — not using it");
        if (c.fallbackTaken)
            expected << QStringLiteral("no private folder for local sockets: ") + fallback
                    + QStringLiteral(" is not usable (not a folder)")
                     << QStringLiteral("single instance disabled: a second launch will start another Vistrel");
        EXPECT_EQ(log.lines(), expected);
        const QString folder = c.fallbackTaken ? QString() : c.set && !c.refusal ? runtime : fallback;
        EXPECT_EQ(key.isEmpty() ? QString() : QFileInfo(key).path(), folder);
    }
}

// Only our own socket is trusted, only our own dead socket replaced; a file or a stranger's
// socket is left alone and logged, and a second launch does not defer to it.
TEST(LocalSocketTest, OnlyTheUsersOwnSocketsAreTrustedOrReplaced)
{
    enum Squatter { Nothing, RegularFile, StaleOwnSocket, LiveOwnSocket, LiveStrangersSocket };
    for (const Squatter squatter : {Nothing, RegularFile, StaleOwnSocket, LiveOwnSocket, LiveStrangersSocket}) {
        SCOPED_TRACE(squatter);
        if (squatter == LiveStrangersSocket && ::geteuid() != 0)
            continue; // only root can hand a socket to another user
        QTemporaryDir folder;
        const QString path = folder.filePath(QStringLiteral("socket"));
        const QByteArray name = QFile::encodeName(path);
        const QByteArray notes = "someone's notes\n";
        QLocalServer other;
        ASSERT_TRUE(squatter == RegularFile          ? test::writeFile(path, notes)
                        : squatter == StaleOwnSocket ? makeStaleSocket(path)
                        : squatter >= LiveOwnSocket  ? other.listen(path)
                                                     : true);
        ASSERT_TRUE(squatter != LiveStrangersSocket
                    || (::chown(name.constData(), kStranger, kStranger) == 0 && ::chmod(name.constData(), 0777) == 0));
        const bool ours = squatter == Nothing || squatter == StaleOwnSocket;
        const bool live = squatter == LiveOwnSocket;
        const QString why = live      ? QStringLiteral("another server is answering on it")
            : squatter == RegularFile ? QStringLiteral("a regular file")
                                      : QStringLiteral("a socket owned by uid 65534, mode 0777");

        // The single instance: a second launch defers only to a live socket of ours.
        test::SystemLogCapture log;
        SingleInstance instance(path);
        EXPECT_EQ(instance.notifyRunningInstance(), live);
        EXPECT_EQ(instance.listen(), ours);
        QStringList expected;
        if (!ours && !live)
            expected << QStringLiteral("single instance: ignoring ") + path
                    + QStringLiteral(", not a socket of this user (") + why + u')';
        if (!ours)
            expected << QStringLiteral("single instance: cannot listen on ") + path + QStringLiteral(" (") + why + u')';
        EXPECT_EQ(log.lines(), expected);
        instance.release();
        if (squatter == RegularFile) {
            EXPECT_EQ(test::readFile(path), notes);
        }
    }
}
