// vistrel-camera-extension-helper: the one part of Vistrel that runs as root, started
// through pkexec with the action app.vistrel.Vistrel.camera-extension.
//
//   vistrel-camera-extension-helper activate <extension identifier>
//   vistrel-camera-extension-helper deactivate <extension identifier>
//   vistrel-camera-extension-helper status <extension identifier>
//
// It prints exactly one line on standard output ("outcome ..." or "status ...") and
// explanations on standard error. The configuration it installs comes from its own
// installation; every path it touches is fixed. A test build (VISTREL_HELPER_TESTABLE)
// also accepts "--test-root=<folder>" first, which moves every one of those paths
// under that folder, and "--test-crash-mid-write", which kills it half-way through
// its first file write. The installed helper has neither.
#include "sysext/ExtensionFiles.h"
#include "sysext/helper/ExtensionInstaller.h"
#include "sysext/helper/SafeFiles.h"

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
    return answer(helper::Outcome::failed(1, problem + " (usage: vistrel-camera-extension-helper "
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
    return answer(verb == "activate" ? installer.activate(identifier) : installer.deactivate(identifier));
}
