#include "sysext/helper/ExtensionInstaller.h"

#include "sysext/helper/ChildProcess.h"
#include "sysext/helper/SafeFiles.h"
#include "vcam/v4l2loopback/LoopbackNode.h"

#include <algorithm>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vistrel::sysext::helper {
namespace {

std::string trimmed(std::string text)
{
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ' || text.back() == '\t'))
        text.pop_back();
    const auto start = text.find_first_not_of(" \t");
    return start == std::string::npos ? std::string{} : text.substr(start);
}

std::string readSmall(const std::string &path)
{
    std::string error;
    return trimmed(readRegularFile(path, &error).value_or(std::string{}));
}

bool isFolder(const std::string &path)
{
    struct stat info = {};
    return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool isExecutable(const std::string &path)
{
    struct stat info = {};
    return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

std::string firstExecutable(std::initializer_list<const char *> candidates)
{
    for (const char *candidate : candidates)
        if (isExecutable(candidate))
            return candidate;
    return {};
}

std::string oneLine(std::string text)
{
    for (char &c : text)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
            c = ' ';
    text = trimmed(text);
    // Runs of blanks (left by the line breaks of a tool's message) become one.
    text.erase(std::unique(text.begin(), text.end(), [](char a, char b) { return a == ' ' && b == ' '; }), text.end());
    return text;
}

// The first item of a comma-separated option value: the one device the helper adds.
std::string firstItem(const std::string &value)
{
    return value.substr(0, value.find(','));
}

// The kernel refuses a module whose signing key it does not trust with EKEYREJECTED when
// signatures are enforced, and while locked down (as Secure Boot makes it) with EPERM, or
// ENOKEY on older kernels. Those two also have other causes, so they count only in lockdown.
bool keyRejected(const std::string &output)
{
    return output.find("Key was rejected by service") != std::string::npos;
}

bool refusedUnsigned(const std::string &output)
{
    return output.find("Operation not permitted") != std::string::npos
        || output.find("Required key not available") != std::string::npos;
}

} // namespace

InstallerPaths InstallerPaths::forSystem(const std::string &executablePath)
{
    // <prefix>/libexec/vistrel/<helper>: the bundle is <prefix>/share/vistrel/SystemExtensions.
    std::string prefix = executablePath;
    for (int i = 0; i < 3; ++i)
        prefix = prefix.substr(0, prefix.rfind('/'));
    InstallerPaths paths;
    paths.extensionsDir = prefix + "/share/vistrel/SystemExtensions";
    paths.modprobeDir = "/etc/modprobe.d";
    paths.modulesLoadDir = "/etc/modules-load.d";
    paths.sysDir = "/sys";
    paths.lockFile = "/run/vistrel-camera-extension.lock";
    paths.lockdownFile = "/sys/kernel/security/lockdown";
    paths.modprobe = firstExecutable({"/usr/sbin/modprobe", "/sbin/modprobe"});
    paths.modinfo = firstExecutable({"/usr/sbin/modinfo", "/sbin/modinfo"});
    paths.loopbackCtl = firstExecutable({"/usr/bin/v4l2loopback-ctl", "/bin/v4l2loopback-ctl"});
    paths.trustedOwner = 0;
    return paths;
}

InstallerPaths InstallerPaths::underRoot(const std::string &root, uid_t owner)
{
    InstallerPaths paths;
    paths.extensionsDir = root + "/share/vistrel/SystemExtensions";
    paths.modprobeDir = root + "/etc/modprobe.d";
    paths.modulesLoadDir = root + "/etc/modules-load.d";
    paths.sysDir = root + "/sys";
    paths.lockFile = root + "/run/vistrel-camera-extension.lock";
    paths.lockdownFile = root + "/sys/kernel/security/lockdown";
    const auto tool = [&](const std::string &path) { return isExecutable(path) ? path : std::string{}; };
    paths.modprobe = tool(root + "/sbin/modprobe");
    paths.modinfo = tool(root + "/sbin/modinfo");
    paths.loopbackCtl = tool(root + "/bin/v4l2loopback-ctl");
    paths.trustedOwner = owner;
    return paths;
}

std::string Outcome::line() const
{
    switch (kind) {
    case Kind::Completed: return "outcome completed";
    case Kind::AfterReboot: return "outcome reboot";
    case Kind::NeedsApproval: return "outcome needs-approval";
    case Kind::Failed: break;
    }
    return "outcome failed " + std::to_string(code) + " " + oneLine(description);
}

ExtensionInstaller::ExtensionInstaller(InstallerPaths paths) : m_paths(std::move(paths)) {}

ModuleState ExtensionInstaller::moduleState() const
{
    ModuleState state;
    const std::string moduleDir = m_paths.sysDir + "/module/" + std::string(files::kModuleName);
    state.loaded = isFolder(moduleDir);
    if (state.loaded) {
        state.version = readSmall(moduleDir + "/version");
        state.useCount = std::atoi(readSmall(moduleDir + "/refcnt").c_str());
    }
    const std::string classDir = m_paths.sysDir + "/class/video4linux";
    DIR *folder = ::opendir(classDir.c_str());
    if (!folder)
        return state;
    std::vector<std::string> entries;
    while (const dirent *entry = ::readdir(folder)) {
        const std::string name = entry->d_name;
        if (name.starts_with("video"))
            entries.push_back(name);
    }
    ::closedir(folder);
    std::sort(entries.begin(), entries.end(), [](const std::string &a, const std::string &b) {
        return std::atoi(a.c_str() + 5) < std::atoi(b.c_str() + 5);
    });
    for (const std::string &entry : entries) {
        const std::string path = classDir + "/" + entry;
        if (!vcam::isLoopbackClassEntry(path))
            continue;
        if (readSmall(path + "/name") == files::kCameraName)
            state.cameraNodes.push_back("/dev/" + entry);
        else
            ++state.otherLoopbackDevices;
    }
    return state;
}

std::string ExtensionInstaller::moduleVersionFromModinfo() const
{
    if (m_paths.modinfo.empty())
        return {};
    const ChildResult result = runProgram({m_paths.modinfo, "-F", "version", std::string(files::kModuleName)});
    return result.succeeded() ? trimmed(result.output) : std::string{};
}

bool ExtensionInstaller::moduleIsInstalled() const
{
    // Presence is the module file; some builds (Debian 12's 0.12.7) carry no version.
    if (m_paths.modinfo.empty())
        return false;
    const ChildResult result = runProgram({m_paths.modinfo, "-F", "filename", std::string(files::kModuleName)});
    return result.succeeded() && !trimmed(result.output).empty();
}

bool ExtensionInstaller::loadBundled(const std::string &identifier, BundledExtension &bundled, Outcome &failure) const
{
    const std::string folder = m_paths.extensionsDir + "/" + identifier;
    const std::string manifestPath = folder + "/" + std::string(files::kManifestName);
    const std::string modprobePath = folder + "/" + std::string(files::kModprobeConfigName);
    const std::string modulesLoadPath = folder + "/" + std::string(files::kModulesLoadConfigName);
    for (const std::string &path : {folder, manifestPath, modprobePath, modulesLoadPath}) {
        if (!isTrusted(path, m_paths.trustedOwner)) {
            failure = Outcome::failed(
                1, "the camera extension is not installed safely (missing, or writable by others): " + path);
            return false;
        }
    }
    // Stops at the first file that cannot be read, with its reason.
    const auto read = [&](const std::string &path, std::optional<std::string> &content) {
        std::string error;
        content = readRegularFile(path, &error);
        if (!content)
            failure = Outcome::failed(
                1, "cannot read the camera extension in " + folder + (error.empty() ? "" : ": " + error));
        return content.has_value();
    };
    std::optional<std::string> manifest, modprobe, modulesLoad;
    if (!read(manifestPath, manifest) || !read(modprobePath, modprobe) || !read(modulesLoadPath, modulesLoad))
        return false;
    bundled.manifest = files::parseManifest(*manifest);
    if (bundled.manifest.identifier != identifier || bundled.manifest.shortVersion.empty()) {
        failure = Outcome::failed(1, "the manifest in " + folder + " does not describe " + identifier);
        return false;
    }
    std::string why;
    const auto options = files::parseModprobeConfig(*modprobe, &why);
    if (!options || !files::isSafeModulesLoadConfig(*modulesLoad, &why)) {
        failure = Outcome::failed(1, "refusing the module configuration in " + folder + ": " + why);
        return false;
    }
    bundled.modprobeConfig = *modprobe;
    bundled.modulesLoadConfig = *modulesLoad;
    if (const auto label = options->find("card_label"); label != options->end())
        bundled.cardLabel = firstItem(label->second);
    if (const auto caps = options->find("exclusive_caps"); caps != options->end())
        bundled.exclusiveCaps = firstItem(caps->second);
    return true;
}

bool ExtensionInstaller::installedFileIsOurs(const std::string &dir, const std::string &identifier,
                                             Outcome &failure) const
{
    const std::string path = dir + "/" + files::installedFileName(identifier);
    std::string error;
    const auto existing = readRegularFile(path, &error);
    if (!existing) {
        if (error.empty())
            return true; // nothing there
        failure = Outcome::failed(1, "unexpected file, left alone: " + error);
        return false;
    }
    const auto marker = files::parseMarker(*existing);
    if (!marker || marker->identifier != identifier) {
        failure = Outcome::failed(1, "unexpected file, not written by Vistrel, left alone: " + path);
        return false;
    }
    return true;
}

Outcome ExtensionInstaller::loadModule()
{
    if (m_paths.modprobe.empty())
        return Outcome::failed(1, "modprobe is not installed");
    const ChildResult result = runProgram({m_paths.modprobe, std::string(files::kModuleName)});
    if (result.succeeded())
        return Outcome::completed();
    if (keyRejected(result.output))
        return Outcome::needsApproval(oneLine(result.output));
    if (refusedUnsigned(result.output)) {
        if (const std::string mode = lockdownMode(); !mode.empty())
            return Outcome::needsApproval("the kernel is locked down (" + mode
                                          + ") and loads v4l2loopback once its signing key is enrolled: "
                                          + oneLine(result.output));
    }
    if (!result.started)
        return Outcome::failed(1, "cannot run " + m_paths.modprobe);
    return Outcome::failed(1, "modprobe v4l2loopback failed: " + oneLine(result.output));
}

std::string ExtensionInstaller::lockdownMode() const
{
    // "none [integrity] confidentiality": the mode in force is in brackets.
    const std::string modes = readSmall(m_paths.lockdownFile);
    const auto open = modes.find('[');
    const auto close = modes.find(']', open);
    if (open == std::string::npos || close == std::string::npos)
        return {};
    const std::string mode = modes.substr(open + 1, close - open - 1);
    return mode == "integrity" || mode == "confidentiality" ? mode : std::string{};
}

Outcome ExtensionInstaller::loadIntoRunningKernel(const BundledExtension &bundled, const ModuleState &state)
{
    if (!state.cameraNodes.empty())
        return Outcome::completed();

    if (!state.loaded) {
        const Outcome loaded = loadModule();
        if (loaded.kind != Outcome::Kind::Completed)
            return loaded;
    } else {
        const std::string version = state.version.empty() ? moduleVersionFromModinfo() : state.version;
        if (!version.empty() && files::compareVersions(version, "0.13") >= 0 && !m_paths.loopbackCtl.empty()) {
            // 0.13 and later add a device to the loaded module.
            const ChildResult added =
                runProgram({m_paths.loopbackCtl, "add", "-n", bundled.cardLabel, "-x", bundled.exclusiveCaps});
            if (!added.succeeded())
                return Outcome::failed(1, "v4l2loopback-ctl add failed: " + oneLine(added.output));
        } else {
            // 0.12 takes new options only by reloading, and cannot unload while any of
            // its devices is open: then the configuration waits for the next boot.
            if (state.useCount > 0)
                return Outcome::afterReboot("a v4l2loopback device is in use");
            const ChildResult removed = runProgram({m_paths.modprobe, "-r", std::string(files::kModuleName)});
            if (!removed.succeeded())
                return Outcome::afterReboot("v4l2loopback cannot be unloaded now: " + oneLine(removed.output));
            const Outcome loaded = loadModule();
            if (loaded.kind != Outcome::Kind::Completed)
                return loaded;
        }
    }
    if (moduleState().cameraNodes.empty())
        return Outcome::failed(1,
                               "v4l2loopback is loaded but no \"" + bundled.cardLabel
                                   + "\" camera appeared; another configuration may override its options");
    return Outcome::completed();
}

bool ExtensionInstaller::prepareInstalledFiles(const std::string &identifier, BundledExtension &bundled,
                                               std::string &fileName, Outcome &failure) const
{
    if (!loadBundled(identifier, bundled, failure))
        return false;
    fileName = files::installedFileName(identifier);
    removeAbandonedTemporaries(m_paths.modprobeDir, fileName);
    removeAbandonedTemporaries(m_paths.modulesLoadDir, fileName);
    return installedFileIsOurs(m_paths.modprobeDir, identifier, failure)
        && installedFileIsOurs(m_paths.modulesLoadDir, identifier, failure);
}

Outcome ExtensionInstaller::activate(const std::string &identifier)
{
    BundledExtension bundled;
    std::string fileName;
    Outcome failure;
    if (!prepareInstalledFiles(identifier, bundled, fileName, failure))
        return failure;

    const ModuleState state = moduleState();
    if (!state.loaded && !moduleIsInstalled())
        return Outcome::failed(4, "The v4l2loopback kernel module is not installed.");

    const std::string marker =
        files::markerLine({identifier, bundled.manifest.shortVersion, std::string(files::kStateInstalled)});
    std::string error;
    if (!writeFileAtomically(m_paths.modprobeDir, fileName, marker + "\n" + bundled.modprobeConfig, &error)
        || !writeFileAtomically(m_paths.modulesLoadDir, fileName, marker + "\n" + bundled.modulesLoadConfig, &error))
        return Outcome::failed(1, error);

    return loadIntoRunningKernel(bundled, state);
}

Outcome ExtensionInstaller::deactivate(const std::string &identifier)
{
    BundledExtension bundled;
    std::string fileName;
    Outcome failure;
    if (!prepareInstalledFiles(identifier, bundled, fileName, failure))
        return failure;

    std::string error;
    if (!removeRegularFile(m_paths.modulesLoadDir, fileName, &error))
        return Outcome::failed(1, error);

    const ModuleState state = moduleState();
    bool cameraRemoved = state.cameraNodes.empty();
    const std::string version = state.version.empty() ? moduleVersionFromModinfo() : state.version;
    if (!cameraRemoved && files::compareVersions(version, "0.13") >= 0 && !m_paths.loopbackCtl.empty()) {
        cameraRemoved = true;
        for (const std::string &node : state.cameraNodes)
            cameraRemoved = runProgram({m_paths.loopbackCtl, "delete", node}).succeeded() && cameraRemoved;
    } else if (!cameraRemoved && state.useCount == 0 && state.otherLoopbackDevices == 0 && !m_paths.modprobe.empty()) {
        // Unloading removes every loopback device: only when all of them are ours.
        cameraRemoved = runProgram({m_paths.modprobe, "-r", std::string(files::kModuleName)}).succeeded();
    }

    if (cameraRemoved) {
        if (!removeRegularFile(m_paths.modprobeDir, fileName, &error))
            return Outcome::failed(1, error);
        return Outcome::completed();
    }
    // The camera stays until the module goes: keep an inert record (comments only)
    // that says so, until the next boot or the next request replaces it.
    const std::string marker =
        files::markerLine({identifier, bundled.manifest.shortVersion, std::string(files::kStateRemoved)});
    if (!writeFileAtomically(m_paths.modprobeDir, fileName, marker + "\n", &error))
        return Outcome::failed(1, error);
    return Outcome::afterReboot("the Vistrel camera is in use");
}

std::string ExtensionInstaller::status(const std::string &identifier)
{
    std::string error;
    const auto installed = readRegularFile(m_paths.modprobeDir + "/" + files::installedFileName(identifier), &error);
    const auto marker = installed ? files::parseMarker(*installed) : std::nullopt;
    const ModuleState state = moduleState();
    return "status identifier=" + identifier + " installed=" + (marker ? marker->version : "none")
        + " state=" + (marker ? marker->state : "none") + " module=" + (state.loaded ? "loaded" : "not-loaded")
        + " moduleVersion=" + (state.version.empty() ? "unknown" : state.version)
        + " camera=" + (state.cameraNodes.empty() ? "none" : state.cameraNodes.front());
}

} // namespace vistrel::sysext::helper
