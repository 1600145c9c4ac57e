#include "sysext/ExtensionFiles.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <vector>

namespace vistrel::sysext::files {
namespace {

constexpr std::string_view kMarkerPrefix = "# vistrel-extension ";

std::string_view trim(std::string_view text)
{
    const auto isSpace = [](char c) { return c == ' ' || c == '\t' || c == '\r'; };
    while (!text.empty() && isSpace(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && isSpace(text.back()))
        text.remove_suffix(1);
    return text;
}

std::vector<std::string_view> lines(std::string_view text)
{
    std::vector<std::string_view> result;
    while (!text.empty()) {
        const auto end = text.find('\n');
        result.push_back(text.substr(0, end));
        if (end == std::string_view::npos)
            break;
        text.remove_prefix(end + 1);
    }
    return result;
}

std::vector<std::string_view> words(std::string_view line)
{
    std::vector<std::string_view> result;
    std::size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t'))
            ++i;
        const std::size_t start = i;
        while (i < line.size() && line[i] != ' ' && line[i] != '\t')
            ++i;
        if (i > start)
            result.push_back(line.substr(start, i - start));
    }
    return result;
}

bool isAsciiAlnum(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool fail(std::string *why, std::string message)
{
    if (why)
        *why = std::move(message);
    return false;
}

bool isComment(std::string_view line)
{
    line = trim(line);
    return line.empty() || line.front() == '#';
}

// Comma-separated items, none empty, each accepted by `item`.
template<typename Item>
bool isListOf(std::string_view value, Item item)
{
    for (;;) {
        const auto comma = value.find(',');
        if (!item(value.substr(0, comma)))
            return false;
        if (comma == std::string_view::npos)
            return true;
        value.remove_prefix(comma + 1);
    }
}

bool isNumber(std::string_view text)
{
    return !text.empty() && text.size() <= 9
        && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// What v4l2loopback takes as each option, as far as the camera needs it.
bool isValidOptionValue(std::string_view key, std::string_view value)
{
    if (value.size() > 128)
        return false;
    if (key == "card_label") {
        return isListOf(value, [](std::string_view label) {
            // A V4L2 device name holds 31 characters; a leading '-' would read as an option of v4l2loopback-ctl.
            return !label.empty() && label.size() <= 31 && label.front() != '-'
                && std::all_of(label.begin(), label.end(), [](char c) {
                       return isAsciiAlnum(c) || std::string_view("_-.+:@").find(c) != std::string_view::npos;
                   });
        });
    }
    if (key == "exclusive_caps")
        return isListOf(value, [](std::string_view flag) { return flag == "0" || flag == "1"; });
    if (key == "video_nr")
        return isListOf(value, [](std::string_view nr) { return isNumber(nr.starts_with('-') ? nr.substr(1) : nr); });
    return isNumber(value);
}

} // namespace

bool isValidIdentifier(std::string_view identifier)
{
    if (identifier.empty() || identifier.size() > 200)
        return false;
    if (!((identifier.front() >= 'a' && identifier.front() <= 'z')
          || (identifier.front() >= 'A' && identifier.front() <= 'Z')))
        return false;
    char previous = 0;
    for (const char c : identifier) {
        if (!isAsciiAlnum(c) && c != '.' && c != '-' && c != '_')
            return false;
        if (c == '.' && previous == '.')
            return false;
        previous = c;
    }
    return identifier.back() != '.';
}

bool isValidVersion(std::string_view version)
{
    if (version.empty() || version.size() > 64 || !(version.front() >= '0' && version.front() <= '9'))
        return false;
    return std::all_of(version.begin(), version.end(),
                       [](char c) { return isAsciiAlnum(c) || c == '.' || c == '+' || c == '~' || c == '-'; });
}

Manifest parseManifest(std::string_view text)
{
    Manifest manifest;
    for (std::string_view line : lines(text)) {
        if (isComment(line))
            continue;
        const auto equals = line.find('=');
        if (equals == std::string_view::npos)
            continue;
        const std::string_view key = trim(line.substr(0, equals));
        const std::string_view value = trim(line.substr(equals + 1));
        if (key == "Identifier" && isValidIdentifier(value))
            manifest.identifier = std::string(value);
        else if (key == "ShortVersion" && isValidVersion(value))
            manifest.shortVersion = std::string(value);
    }
    return manifest;
}

std::optional<ModuleOptions> parseModprobeConfig(std::string_view text, std::string *why)
{
    static constexpr std::array<std::string_view, 8> kKeys = {
        "devices", "video_nr", "card_label", "exclusive_caps", "max_buffers", "max_openers", "max_width", "max_height"};
    const auto refuse = [why](std::string message) {
        fail(why, std::move(message));
        return std::nullopt;
    };
    ModuleOptions options;
    bool sawOptions = false;
    for (std::string_view line : lines(text)) {
        // modprobe joins the next line to this one, even to a comment.
        if (trim(line).ends_with('\\'))
            return refuse("a line continued with a backslash: " + std::string(trim(line)));
        if (isComment(line))
            continue;
        const auto parts = words(line);
        if (parts.size() < 3 || parts[0] != "options" || parts[1] != kModuleName)
            return refuse("only \"options v4l2loopback ...\" lines are allowed, found: " + std::string(trim(line)));
        for (std::size_t i = 2; i < parts.size(); ++i) {
            // modprobe passes the words after a '#' on as options: a comment has a line of its own.
            if (parts[i].starts_with('#'))
                return refuse("a comment must be on a line of its own: " + std::string(trim(line)));
            const auto equals = parts[i].find('=');
            const std::string_view key = parts[i].substr(0, equals);
            if (equals == std::string_view::npos || std::find(kKeys.begin(), kKeys.end(), key) == kKeys.end()
                || !isValidOptionValue(key, parts[i].substr(equals + 1)))
                return refuse("option not allowed: " + std::string(parts[i]));
            if (!options.emplace(key, parts[i].substr(equals + 1)).second)
                return refuse("option set twice: " + std::string(key));
        }
        sawOptions = true;
    }
    if (!sawOptions)
        return refuse("no \"options v4l2loopback\" line");
    return options;
}

bool isSafeModulesLoadConfig(std::string_view text, std::string *why)
{
    bool sawModule = false;
    for (std::string_view line : lines(text)) {
        if (isComment(line))
            continue;
        if (trim(line) != kModuleName)
            return fail(why, "only the v4l2loopback module may be listed, found: " + std::string(trim(line)));
        sawModule = true;
    }
    if (!sawModule)
        return fail(why, "the v4l2loopback module is not listed");
    return true;
}

std::string markerLine(const Marker &marker)
{
    return std::string(kMarkerPrefix) + "identifier=" + marker.identifier + " version=" + marker.version
        + " state=" + marker.state;
}

std::optional<Marker> parseMarker(std::string_view fileText)
{
    std::string_view first = fileText.substr(0, fileText.find('\n'));
    if (!first.starts_with(kMarkerPrefix))
        return std::nullopt;
    first.remove_prefix(kMarkerPrefix.size());
    Marker marker;
    for (std::string_view word : words(first)) {
        const auto equals = word.find('=');
        if (equals == std::string_view::npos)
            return std::nullopt;
        const std::string_view key = word.substr(0, equals);
        const std::string_view value = word.substr(equals + 1);
        if (key == "identifier")
            marker.identifier = std::string(value);
        else if (key == "version")
            marker.version = std::string(value);
        else if (key == "state")
            marker.state = std::string(value);
    }
    if (!isValidIdentifier(marker.identifier) || !isValidVersion(marker.version)
        || (marker.state != kStateInstalled && marker.state != kStateRemoved))
        return std::nullopt;
    return marker;
}

int compareVersions(std::string_view a, std::string_view b)
{
    const auto next = [](std::string_view &text) {
        int value = 0;
        const auto dot = text.find('.');
        const std::string_view part = text.substr(0, dot);
        std::from_chars(part.data(), part.data() + part.size(), value);
        text = dot == std::string_view::npos ? std::string_view{} : text.substr(dot + 1);
        return value;
    };
    while (!a.empty() || !b.empty()) {
        const int x = next(a);
        const int y = next(b);
        if (x != y)
            return x < y ? -1 : 1;
    }
    return 0;
}

} // namespace vistrel::sysext::files
