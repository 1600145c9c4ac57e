#include "vcam/v4l2loopback/LoopbackNode.h"

#include <filesystem>

namespace vistrel::vcam {

namespace {

constexpr std::string_view kModule = "v4l2loopback";

// The last part of a symbolic link's target; empty when path is no link.
std::string linkTargetName(const std::filesystem::path &path)
{
    std::error_code error;
    const std::filesystem::path target = std::filesystem::read_symlink(path, error);
    return error ? std::string{} : target.filename().string();
}

} // namespace

bool isLoopbackClassEntry(const std::string &classEntry)
{
    const std::filesystem::path entry(classEntry);
    std::error_code error;
    if (std::filesystem::is_symlink(entry / "device" / "driver", error))
        return linkTargetName(entry / "device" / "driver") == kModule;
    if (linkTargetName(entry / "device").starts_with(kModule))
        return true;
    return std::filesystem::exists(entry / "max_openers", error);
}

} // namespace vistrel::vcam
