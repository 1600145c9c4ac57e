#pragma once
// File operations for a program that runs as root in folders such as /etc: no
// symbolic link is followed, nothing but a regular file is replaced or removed, and
// a file is replaced in one step (complete old content or complete new content).
#include <chrono>
#include <optional>
#include <string>
#include <sys/types.h>

namespace vistrel::sysext::helper {

// Test builds can make the next atomic write stop the process half-way through
// writing its temporary file, as a power cut or a kill would.
void setCrashInTheMiddleOfWrites(bool crash);

// The content of a regular file (not a link) of at most 64 KiB; nothing, with the
// reason in `error`, otherwise. A missing file leaves `error` empty.
std::optional<std::string> readRegularFile(const std::string &path, std::string *error);

// True when `path` (not followed) is owned by `owner` and writable by nobody else.
bool isTrusted(const std::string &path, uid_t owner);

// Makes `dir` (mode 0755) when it is missing; refuses a link or a non-folder.
bool ensureFolder(const std::string &dir, std::string *error);

// Replaces dir/name with `content` (mode 0644): a temporary file in the same folder,
// written, flushed to disk, then renamed over the target, and the folder flushed. The
// writer holds a lock on its temporary until it is renamed or removed, which tells it
// apart from one abandoned by a run that was killed.
// Refuses when the target exists and is not a regular file. Writes nothing when the
// file already holds exactly this content.
bool writeFileAtomically(const std::string &dir, const std::string &name, const std::string &content,
                         std::string *error);

// Removes dir/name if it is a regular file; a missing file is fine; anything else
// is refused.
bool removeRegularFile(const std::string &dir, const std::string &name, std::string *error);

// Removes the temporary files that an interrupted write of dir/name left behind: only
// those no running writer holds, so another run's file in the middle of its write is
// never touched.
void removeAbandonedTemporaries(const std::string &dir, const std::string &name);

// An exclusive lock (flock) on a lock file, held until the object goes or the process
// ends. The lock file is created (mode 0600) if missing; a link is not followed, and
// a lock file that is not a regular file owned by `owner` is refused: anyone else could
// hold it forever.
class ExclusiveLock
{
public:
    enum class Result { Locked, StillHeld, Refused };

    ExclusiveLock() = default;
    ExclusiveLock(const ExclusiveLock &) = delete;
    ExclusiveLock &operator=(const ExclusiveLock &) = delete;
    ~ExclusiveLock();

    // Waits at most `wait` for the lock; the reason in `error` unless Locked.
    Result acquire(const std::string &path, uid_t owner, std::chrono::milliseconds wait, std::string *error);

private:
    int m_fd = -1;
};

} // namespace vistrel::sysext::helper
