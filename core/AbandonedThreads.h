#pragma once
#include <thread>

namespace vistrel {

// Keeps a thread that would not stop within its bound (one stuck in a write to a
// vanished device, or in a pipeline that never reaches NULL) until the process ends.
// A std::thread destroyed while still joinable ends the program, and joining it would
// hang the quit; the list is never destroyed, and the process's exit ends the thread.
// The thread must own, through shared state, everything it can still touch. Any thread.
void keepUntilExit(std::thread thread);

} // namespace vistrel
