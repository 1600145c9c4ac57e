#include "sysext/helper/SafeFiles.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace vistrel::sysext::helper {
namespace {

bool g_crashMidWrite = false;
constexpr std::size_t kMaxFileSize = 64 * 1024;

std::string temporaryPrefix(const std::string &name)
{
    return "." + name + ".vistrel-";
}

bool fail(std::string *error, const std::string &message)
{
    if (error)
        *error = message;
    return false;
}

std::string errnoText(const std::string &what, const std::string &path)
{
    return what + " " + path + ": " + std::strerror(errno);
}

bool writeAll(int fd, const char *data, std::size_t size)
{
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        data += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

void syncFolder(const std::string &dir)
{
    const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
}

} // namespace

void setCrashInTheMiddleOfWrites(bool crash)
{
    g_crashMidWrite = crash;
}

std::optional<std::string> readRegularFile(const std::string &path, std::string *error)
{
    if (error)
        error->clear();
    const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        if (errno != ENOENT && error)
            *error = errnoText("cannot read", path);
        return std::nullopt;
    }
    struct stat info = {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || static_cast<std::size_t>(info.st_size) > kMaxFileSize) {
        ::close(fd);
        fail(error, "not a regular file of a sensible size: " + path);
        return std::nullopt;
    }
    std::string content;
    char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n > 0 && content.size() + static_cast<std::size_t>(n) <= kMaxFileSize) {
            content.append(buffer, static_cast<std::size_t>(n));
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n != 0) {
            ::close(fd);
            fail(error, "cannot read " + path);
            return std::nullopt;
        }
        break;
    }
    ::close(fd);
    return content;
}

bool isTrusted(const std::string &path, uid_t owner)
{
    struct stat info = {};
    if (::lstat(path.c_str(), &info) != 0 || S_ISLNK(info.st_mode))
        return false;
    return info.st_uid == owner && (info.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

bool ensureFolder(const std::string &dir, std::string *error)
{
    struct stat info = {};
    if (::lstat(dir.c_str(), &info) == 0)
        return S_ISDIR(info.st_mode) ? true : fail(error, "not a folder: " + dir);
    if (errno != ENOENT)
        return fail(error, errnoText("cannot inspect", dir));
    if (::mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST)
        return fail(error, errnoText("cannot create", dir));
    return true;
}

bool writeFileAtomically(const std::string &dir, const std::string &name, const std::string &content,
                         std::string *error)
{
    if (!ensureFolder(dir, error))
        return false;
    const std::string target = dir + "/" + name;
    struct stat info = {};
    if (::lstat(target.c_str(), &info) == 0) {
        if (!S_ISREG(info.st_mode))
            return fail(error, "refusing to replace something that is not a regular file: " + target);
        std::string readError;
        if (const auto existing = readRegularFile(target, &readError); existing && *existing == content)
            return true;
    } else if (errno != ENOENT) {
        return fail(error, errnoText("cannot inspect", target));
    }

    std::string temporary = dir + "/" + temporaryPrefix(name) + "XXXXXX";
    // mkostemp creates with O_EXCL: it never opens an existing file or follows a link.
    const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0)
        return fail(error, errnoText("cannot create a temporary file in", dir));
    // Removed by its exact name on every way out; held locked until then so that no
    // other run takes it for an abandoned one.
    const auto abandon = [&](const std::string &message) {
        ::unlink(temporary.c_str());
        ::close(fd);
        return fail(error, message);
    };
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0)
        return abandon(errnoText("cannot lock", temporary));
    if (::fchmod(fd, 0644) != 0)
        return abandon(errnoText("cannot set the mode of", temporary));
    std::size_t firstPart = content.size();
    if (g_crashMidWrite)
        firstPart = content.size() / 2;
    if (!writeAll(fd, content.data(), firstPart))
        return abandon(errnoText("cannot write", temporary));
    if (g_crashMidWrite) {
        ::fsync(fd);
        ::raise(SIGKILL);
    }
    if (!writeAll(fd, content.data() + firstPart, content.size() - firstPart))
        return abandon(errnoText("cannot write", temporary));
    if (::fsync(fd) != 0)
        return abandon(errnoText("cannot flush", temporary));
    if (::rename(temporary.c_str(), target.c_str()) != 0)
        return abandon(errnoText("cannot replace", target));
    ::close(fd); // the content is on disk already: fsync above
    syncFolder(dir);
    return true;
}

bool removeRegularFile(const std::string &dir, const std::string &name, std::string *error)
{
    const std::string target = dir + "/" + name;
    struct stat info = {};
    if (::lstat(target.c_str(), &info) != 0)
        return errno == ENOENT ? true : fail(error, errnoText("cannot inspect", target));
    if (!S_ISREG(info.st_mode))
        return fail(error, "refusing to remove something that is not a regular file: " + target);
    if (::unlink(target.c_str()) != 0)
        return fail(error, errnoText("cannot remove", target));
    syncFolder(dir);
    return true;
}

void removeAbandonedTemporaries(const std::string &dir, const std::string &name)
{
    DIR *folder = ::opendir(dir.c_str());
    if (!folder)
        return;
    const std::string prefix = temporaryPrefix(name);
    while (const dirent *entry = ::readdir(folder)) {
        const std::string entryName = entry->d_name;
        if (entryName.size() != prefix.size() + 6 || entryName.compare(0, prefix.size(), prefix) != 0)
            continue;
        const std::string path = dir + "/" + entryName;
        const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
        if (fd < 0)
            continue;
        // A writer holds its temporary locked until it is renamed or removed; one that
        // can be locked here was left by a run that ended. Removed only while the name
        // still names the file that was checked.
        struct stat opened
        {
        }, named{};
        if (::fstat(fd, &opened) == 0 && S_ISREG(opened.st_mode) && ::flock(fd, LOCK_EX | LOCK_NB) == 0
            && ::lstat(path.c_str(), &named) == 0 && named.st_dev == opened.st_dev && named.st_ino == opened.st_ino)
            ::unlink(path.c_str());
        ::close(fd);
    }
    ::closedir(folder);
}

ExclusiveLock::~ExclusiveLock()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

ExclusiveLock::Result ExclusiveLock::acquire(const std::string &path, uid_t owner, std::chrono::milliseconds wait,
                                             std::string *error)
{
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0600);
    if (fd < 0) {
        fail(error,
             errno == ELOOP ? "refusing the lock file " + path + ": it is a symbolic link"
                            : errnoText("cannot open the lock file", path));
        return Result::Refused;
    }
    struct stat info = {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_uid != owner) {
        ::close(fd);
        fail(error,
             "refusing the lock file " + path + ": not a regular file owned by "
                 + (owner == 0 ? std::string("root") : "uid " + std::to_string(owner)));
        return Result::Refused;
    }
    const auto deadline = std::chrono::steady_clock::now() + wait;
    while (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno == EINTR)
            continue;
        const bool held = errno == EWOULDBLOCK;
        if (!held || std::chrono::steady_clock::now() >= deadline) {
            fail(error, held ? "the lock " + path + " is still held" : errnoText("cannot lock", path));
            ::close(fd);
            return held ? Result::StillHeld : Result::Refused;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    m_fd = fd;
    return Result::Locked;
}

} // namespace vistrel::sysext::helper
