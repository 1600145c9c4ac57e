#pragma once
#include <QString>

namespace vistrel {

// Checks for the file-system names of the app's local sockets, so that no other user
// can stand in for a server of ours, reach one, or have us delete their files.

// $XDG_RUNTIME_DIR when it is a folder of this user that nobody else can enter;
// otherwise "vistrel-runtime" in the user's cache folder, made with mode 0700. Empty
// when neither can be trusted. Each refusal goes to the system log.
QString privateRuntimeFolder();

// Whether `path` is a socket file that belongs to this user; otherwise `why` says what
// it is instead ("no such file", "a directory", "owned by uid 1001", …).
bool isOwnSocket(const QString &path, QString *why = nullptr);

// Makes `path` ready for a server to listen on: nothing is there, or a socket file of
// this user that no server answers any more (left by a crash), which is removed.
// Anything else is left alone and answers false with the reason in `why`.
bool claimSocketPath(const QString &path, QString *why = nullptr);

} // namespace vistrel
