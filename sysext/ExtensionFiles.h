#pragma once
// The files of the camera extension, shared by the app and its privileged helper:
// the bundle's manifest, the module configuration it installs, and the first line
// the helper writes into each installed file, which turns that file into the
// system's record of the extension. Standard library only: the helper links no Qt.
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace vistrel::sysext::files {

inline constexpr std::string_view kManifestName = "manifest";
inline constexpr std::string_view kModprobeConfigName = "modprobe.conf";
inline constexpr std::string_view kModulesLoadConfigName = "modules-load.conf";
inline constexpr std::string_view kModuleName = "v4l2loopback";
inline constexpr std::string_view kCameraName = "Vistrel";

inline constexpr std::string_view kStateInstalled = "installed";
inline constexpr std::string_view kStateRemoved = "removed";

struct Manifest
{
    std::string identifier;   // empty when the manifest names none
    std::string shortVersion; // empty when the manifest names none
};

// "Key=Value" lines; blank lines and lines starting with '#' are ignored. Unknown
// keys are ignored; a value that is not a valid identifier / version is dropped.
Manifest parseManifest(std::string_view text);

// Reverse-DNS names: letters, digits, '.', '-' and '_', starting with a letter, no
// empty component, at most 200 characters. Nothing that could leave a folder.
bool isValidIdentifier(std::string_view identifier);
// Letters, digits and ".+~-", starting with a digit, at most 64 characters.
bool isValidVersion(std::string_view version);

// The v4l2loopback options a modprobe.d fragment sets, key to value.
using ModuleOptions = std::map<std::string, std::string, std::less<>>;

// Reads a modprobe.d fragment that only sets options of v4l2loopback, as modprobe
// reads it: lines whose first non-blank is '#' are comments, blank lines are skipped,
// words are separated by spaces or tabs, and every other line is "options v4l2loopback
// key=value ...". Only known keys, each at most once, with values of their kind:
// numbers, a list of numbers for video_nr, a list of 0s and 1s for exclusive_caps, and
// for card_label a list of device names of letters, digits and "_-.+:@" (at most 31
// characters, not starting with '-'); lists are comma-separated. Anything else (an "install" command, another module, a quote, a
// '#' after an option, a line continued with a backslash) is refused: the helper
// copies this file into /etc as root and hands the label to v4l2loopback-ctl. Nothing,
// with the reason in `why`, when refused.
std::optional<ModuleOptions> parseModprobeConfig(std::string_view text, std::string *why = nullptr);
// A modules-load.d fragment naming only v4l2loopback.
bool isSafeModulesLoadConfig(std::string_view text, std::string *why = nullptr);

struct Marker
{
    std::string identifier;
    std::string version;
    std::string state; // kStateInstalled or kStateRemoved
};

// "# vistrel-extension identifier=<id> version=<v> state=<state>"
std::string markerLine(const Marker &marker);
// The marker from a file's first line; nothing when the line is not one.
std::optional<Marker> parseMarker(std::string_view fileText);

// The name of the installed files in modprobe.d and modules-load.d.
inline std::string installedFileName(std::string_view identifier)
{
    return std::string(identifier) + ".conf";
}

// Compares dotted version numbers ("0.12.7" < "0.13"); non-numeric parts count as 0.
int compareVersions(std::string_view a, std::string_view b);

} // namespace vistrel::sysext::files
