#pragma once
#include <string>
#include <vector>

namespace vistrel::sysext::helper {

struct ChildResult
{
    bool started = false;
    int exitStatus = -1; // when it exited normally
    int signal = 0;      // when a signal ended it
    std::string output;  // standard output and standard error, interleaved

    bool succeeded() const { return started && signal == 0 && exitStatus == 0; }
};

// Runs argv[0] (an absolute path) with exactly these arguments, no shell, an empty
// standard input and a fixed minimal environment (PATH of the system folders, C
// locale so that messages can be matched), and waits for it.
ChildResult runProgram(const std::vector<std::string> &argv);

} // namespace vistrel::sysext::helper
