#pragma once

namespace vistrel {

// `vistrel` with arguments: a command for the running instance, sent over the session
// bus; it never starts the app itself. Exit codes: 0 done, 1 the instance refused
// (the reason on standard error), 2 no instance answers, 64 bad arguments (with the
// usage on standard error).
//
//   --freeze on|off|toggle    --stutter on|off|toggle
//   --movie PATH              --stop-movie
//   --status                  one line: frozen=… stuttering=… movie=… camera=… streaming=…
//   --help, --version
int runCommandLine(int argc, char *argv[]);

enum CommandLineExit { ExitDone = 0, ExitRefused = 1, ExitNoInstance = 2, ExitUsage = 64 };

} // namespace vistrel
