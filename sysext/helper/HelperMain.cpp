// vistrel-camera-extension-helper: the one part of Vistrel that runs as root, started
// through pkexec with the action app.vistrel.Vistrel.camera-extension.
//
//   vistrel-camera-extension-helper activate <extension identifier>
//   vistrel-camera-extension-helper deactivate <extension identifier>
//   vistrel-camera-extension-helper status <extension identifier>
//
// It prints exactly one line on standard output ("outcome ..." or "status ...") and
// explanations on standard error. The configuration it installs comes from its own
// installation; every path it touches is fixed. activate and deactivate take turns:
// each holds /run/vistrel-camera-extension.lock while it works, and a run that
// cannot have it within 30 seconds fails and changes nothing. A test build
// (VISTREL_HELPER_TESTABLE) also accepts "--test-root=<folder>" first, which moves
// every one of those paths under that folder, then "--test-crash-mid-write", which
// kills it half-way through its first file write, and "--test-lock-wait=<ms>", which
// shortens that wait. The installed helper has none of them.
#include "sysext/ExtensionFiles.h"
#include "sysext/helper/ExtensionInstaller.h"
#include "sysext/helper/SafeFiles.h"

#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace vistrel::sysext;

namespace {

constexpr int kExitOk = 0;
constexpr int kExitUsage = 2;
constexpr std::chrono::milliseconds kLockWait{30000};

int answer(const helper::Outcome &outcome, int exitStatus = kExitOk)
{
    if (!outcome.description.empty())
        std::fprintf(stderr, "vistrel-camera-extension-helper: %s\n", outcome.description.c_str());
    std::printf("%s\n", outcome.line().c_str());
    std::fflush(stdout);
    return exitStatus;
}

int usage(const std::string &problem)
{
    return answer(helper::Outcome::failed(1,
                                          problem
                                              + " (usage: vistrel-camera-extension-helper "
                                                "activate|deactivate|status <extension identifier>)"),
                  kExitUsage);
}

std::string ownExecutable()
{
    char buffer[PATH_MAX];
    const ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    return n > 0 ? std::string(buffer, static_cast<std::size_t>(n)) : std::string{};
}

} // namespace

int main(int argc, char **argv)
{
    ::umask(022);
    std::vector<std::string> args(argv + 1, argv + argc);

    bool system = true;
    helper::InstallerPaths paths;
    std::chrono::milliseconds lockWait = kLockWait;
#ifdef VISTREL_HELPER_TESTABLE
    if (!args.empty() && args.front().starts_with("--test-root=")) {
        const std::string root = args.front().substr(12);
        if (root.empty() || root.front() != '/')
            return usage("--test-root needs an absolute folder");
        paths = helper::InstallerPaths::underRoot(root, ::geteuid());
        system = false;
        args.erase(args.begin());
    }
    if (!args.empty() && args.front() == "--test-crash-mid-write") {
        helper::setCrashInTheMiddleOfWrites(true);
        args.erase(args.begin());
    }
    if (!args.empty() && args.front().starts_with("--test-lock-wait=")) {
        lockWait = std::chrono::milliseconds(std::atoi(args.front().c_str() + 17));
        args.erase(args.begin());
    }
#endif
    if (args.size() != 2)
        return usage("expected a verb and an extension identifier");
    const std::string &verb = args[0];
    const std::string &identifier = args[1];
    if (verb != "activate" && verb != "deactivate" && verb != "status")
        return usage("unknown verb");
    if (!files::isValidIdentifier(identifier))
        return usage("not an extension identifier");

    if (system) {
        const std::string executable = ownExecutable();
        if (executable.empty())
            return answer(helper::Outcome::failed(1, "cannot tell where the helper is installed"));
        paths = helper::InstallerPaths::forSystem(executable);
    }
    helper::ExtensionInstaller installer(paths);

    if (verb == "status") {
        std::printf("%s\n", installer.status(identifier).c_str());
        return kExitOk;
    }
    if (system && ::geteuid() != 0)
        return answer(helper::Outcome::failed(13, "administrator rights are required: run through pkexec"));
    // Two runs at once would interleave their changes to /etc and the module.
    helper::ExclusiveLock lock;
    std::string lockError;
    switch (lock.acquire(paths.lockFile, paths.trustedOwner, lockWait, &lockError)) {
    case helper::ExclusiveLock::Result::Locked: break;
    case helper::ExclusiveLock::Result::StillHeld:
        return answer(
            helper::Outcome::failed(1,
                                    "another camera extension request is still running: " + lockError + " after "
                                        + (lockWait.count() % 1000 == 0 ? std::to_string(lockWait.count() / 1000) + " s"
                                                                        : std::to_string(lockWait.count()) + " ms")));
    case helper::ExclusiveLock::Result::Refused: return answer(helper::Outcome::failed(1, lockError));
    }
    return answer(verb == "activate" ? installer.activate(identifier) : installer.deactivate(identifier));
}
