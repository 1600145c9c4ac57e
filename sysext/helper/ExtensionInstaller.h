#pragma once
// The work of the privileged helper: installs or removes the camera extension's
// module configuration and brings the running kernel in line with it.
#include "sysext/ExtensionFiles.h"

#include <string>
#include <sys/types.h>
#include <vector>

namespace vistrel::sysext::helper {

// Where the helper reads and writes. The installed helper derives these from its own
// location and the system's fixed folders; only a test build can point them elsewhere.
struct InstallerPaths
{
    std::string extensionsDir;  // <prefix>/share/vistrel/SystemExtensions
    std::string modprobeDir;    // /etc/modprobe.d
    std::string modulesLoadDir; // /etc/modules-load.d
    std::string sysDir;         // /sys
    std::string lockFile;       // /run/vistrel-camera-extension.lock: one run at a time
    std::string lockdownFile;   // /sys/kernel/security/lockdown: Secure Boot's module rule
    std::string modprobe;       // absolute paths of the tools; empty when absent
    std::string modinfo;
    std::string loopbackCtl;
    uid_t trustedOwner = 0; // who must own the bundle files the helper reads, and the lock file

    static InstallerPaths forSystem(const std::string &executablePath);
    static InstallerPaths underRoot(const std::string &root, uid_t owner);
};

// The one answer of a run. Codes of failures: 1 unknown, 4 module not installed,
// 13 authorisation required.
struct Outcome
{
    enum class Kind { Completed, AfterReboot, NeedsApproval, Failed };
    Kind kind = Kind::Failed;
    int code = 1;
    std::string description;

    static Outcome completed() { return {Kind::Completed, 0, {}}; }
    static Outcome afterReboot(std::string why) { return {Kind::AfterReboot, 0, std::move(why)}; }
    static Outcome needsApproval(std::string why) { return {Kind::NeedsApproval, 0, std::move(why)}; }
    static Outcome failed(int code, std::string why) { return {Kind::Failed, code, std::move(why)}; }

    // "outcome completed", "outcome reboot", "outcome needs-approval",
    // "outcome failed <code> <description on one line>".
    std::string line() const;
};

// What the kernel currently has.
struct ModuleState
{
    bool loaded = false;
    std::string version;                  // may be empty when unknown
    int useCount = 0;                     // open loopback devices hold the module
    std::vector<std::string> cameraNodes; // /dev/videoN named "Vistrel"
    int otherLoopbackDevices = 0;
};

class ExtensionInstaller
{
public:
    explicit ExtensionInstaller(InstallerPaths paths);

    Outcome activate(const std::string &identifier);
    Outcome deactivate(const std::string &identifier);
    // One line describing what is installed and loaded; changes nothing.
    std::string status(const std::string &identifier);

    ModuleState moduleState() const;

private:
    struct BundledExtension
    {
        files::Manifest manifest;
        std::string modprobeConfig;
        std::string modulesLoadConfig;
        std::string cardLabel = std::string(files::kCameraName);
        std::string exclusiveCaps = "1";
    };
    bool loadBundled(const std::string &identifier, BundledExtension &bundled, Outcome &failure) const;
    bool installedFileIsOurs(const std::string &dir, const std::string &identifier, Outcome &failure) const;
    // Both verbs start here: the bundle, leftovers of an interrupted write cleared, and
    // the installed files (if any) checked to be ours. Answers their file name.
    bool prepareInstalledFiles(const std::string &identifier, BundledExtension &bundled, std::string &fileName,
                               Outcome &failure) const;
    Outcome loadIntoRunningKernel(const BundledExtension &bundled, const ModuleState &state);
    Outcome loadModule();
    // "integrity" or "confidentiality" while the kernel is locked down; empty otherwise.
    std::string lockdownMode() const;
    std::string moduleVersionFromModinfo() const;
    bool moduleIsInstalled() const;

    InstallerPaths m_paths;
};

} // namespace vistrel::sysext::helper
