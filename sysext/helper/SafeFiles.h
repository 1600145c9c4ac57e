#pragma once
// File operations for a program that runs as root in folders such as /etc: no
// symbolic link is followed, nothing but a regular file is replaced or removed, and
// a file is replaced in one step (complete old content or complete new content).
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
// written, flushed to disk, then renamed over the target, and the folder flushed.
// Refuses when the target exists and is not a regular file. Writes nothing when the
// file already holds exactly this content.
bool writeFileAtomically(const std::string &dir, const std::string &name, const std::string &content,
                         std::string *error);

// Removes dir/name if it is a regular file; a missing file is fine; anything else
// is refused.
bool removeRegularFile(const std::string &dir, const std::string &name, std::string *error);

// Removes the temporary files that an interrupted write of dir/name left behind.
void removeLeftoverTemporaries(const std::string &dir, const std::string &name);

} // namespace vistrel::sysext::helper
