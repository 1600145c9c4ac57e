#include "sysext/helper/ChildProcess.h"

#include <cerrno>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vistrel::sysext::helper {

ChildResult runProgram(const std::vector<std::string> &argv)
{
    ChildResult result;
    if (argv.empty() || argv.front().empty() || argv.front().front() != '/')
        return result;

    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0)
        return result;

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDERR_FILENO);

    std::vector<char *> args;
    for (const std::string &arg : argv)
        args.push_back(const_cast<char *>(arg.c_str()));
    args.push_back(nullptr);
    char path[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
    char locale[] = "LC_ALL=C";
    char *environment[] = {path, locale, nullptr};

    pid_t pid = -1;
    const int spawned = ::posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environment);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeFds[1]);
    if (spawned != 0) {
        ::close(pipeFds[0]);
        return result;
    }
    result.started = true;

    char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(pipeFds[0], buffer, sizeof buffer);
        if (n > 0) {
            // Enough to explain a failure; a chatty tool cannot grow this without bound.
            if (result.output.size() < 64 * 1024)
                result.output.append(buffer, static_cast<std::size_t>(n));
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        break;
    }
    ::close(pipeFds[0]);

    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return result;
    }
    if (WIFEXITED(status))
        result.exitStatus = WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        result.signal = WTERMSIG(status);
    return result;
}

} // namespace vistrel::sysext::helper
