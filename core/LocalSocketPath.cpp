#include "core/LocalSocketPath.h"

#include "core/SystemLog.h"

#include <QDir>
#include <QFile>
#include <QLocalSocket>
#include <QStandardPaths>

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace vistrel {
namespace {

// How long a socket file gets to answer before it counts as left over. A server that
// is alive accepts at once (the kernel queues the connection even while it is busy).
constexpr int kLivenessTimeoutMs = 500;

QString errorText(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

QString describeOwnerAndMode(const struct stat &st)
{
    return QStringLiteral("owned by uid %1, mode %2").arg(st.st_uid).arg(st.st_mode & 07777, 4, 8, QLatin1Char('0'));
}

// A real folder (not a link to one) of this user that nobody else may enter.
bool isPrivateFolder(const QString &path, QString *why)
{
    struct stat st = {};
    if (::lstat(QFile::encodeName(path).constData(), &st) != 0) {
        *why = errorText(errno);
        return false;
    }
    if (!S_ISDIR(st.st_mode)) {
        *why = QStringLiteral("not a folder");
        return false;
    }
    if (st.st_uid != ::geteuid() || (st.st_mode & 077) != 0) {
        *why = describeOwnerAndMode(st);
        return false;
    }
    return true;
}

} // namespace

QString privateRuntimeFolder()
{
    QString why;
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (!runtime.isEmpty()) {
        if (isPrivateFolder(runtime, &why))
            return runtime;
        systemLog(QStringLiteral("XDG_RUNTIME_DIR ") + runtime + QStringLiteral(" is not private to this user (") + why
                  + QStringLiteral(") — not using it"));
    }
    const QString cache = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation);
    const QString fallback = cache + QStringLiteral("/vistrel-runtime");
    QDir().mkpath(cache);
    ::mkdir(QFile::encodeName(fallback).constData(), 0700);
    if (isPrivateFolder(fallback, &why))
        return fallback;
    systemLog(QStringLiteral("no private folder for local sockets: ") + fallback + QStringLiteral(" is not usable (")
              + why + QStringLiteral(")"));
    return {};
}

bool isOwnSocket(const QString &path, QString *why)
{
    QString reason;
    struct stat st = {};
    if (::lstat(QFile::encodeName(path).constData(), &st) != 0)
        reason = errorText(errno);
    else if (!S_ISSOCK(st.st_mode))
        reason = S_ISDIR(st.st_mode) ? QStringLiteral("a directory")
            : S_ISREG(st.st_mode)    ? QStringLiteral("a regular file")
            : S_ISLNK(st.st_mode)    ? QStringLiteral("a symbolic link")
                                     : QStringLiteral("not a socket");
    else if (st.st_uid != ::geteuid())
        reason = QStringLiteral("a socket ") + describeOwnerAndMode(st);
    if (why)
        *why = reason;
    return reason.isEmpty();
}

bool claimSocketPath(const QString &path, QString *why)
{
    if (QFile::encodeName(path).size() >= qsizetype(sizeof(sockaddr_un::sun_path))) {
        if (why)
            *why = QStringLiteral("the path is too long for a socket");
        return false;
    }
    struct stat st = {};
    if (::lstat(QFile::encodeName(path).constData(), &st) != 0 && errno == ENOENT)
        return true;
    if (!isOwnSocket(path, why))
        return false;
    QLocalSocket probe;
    probe.connectToServer(path);
    if (probe.waitForConnected(kLivenessTimeoutMs)) {
        probe.abort();
        if (why)
            *why = QStringLiteral("another server is answering on it");
        return false;
    }
    if (!QFile::remove(path)) {
        if (why)
            *why = QStringLiteral("a left-over socket that cannot be removed");
        return false;
    }
    return true;
}

} // namespace vistrel
