// The paths of the configuration files.

#include "config/config_path.h"

#include <cstdlib>

namespace NV {

namespace {

constexpr const char* fileInProfile = ".norvanta-keywarden\\nvksprovider.conf";
constexpr const char* fileBesideModule = "nvksprovider.conf";

}  // namespace

std::string userProfile()
{
    const char* profile = std::getenv("USERPROFILE");
    return profile != nullptr ? profile : "";
}

std::string configurationFile(const std::string& profile)
{
    return profile + "\\" + fileInProfile;
}

std::filesystem::path configurationFile(const std::filesystem::path& profile)
{
    return profile / fileInProfile;
}

std::filesystem::path machineConfigurationFile(const std::filesystem::path& module)
{
    return module.parent_path() / fileBesideModule;
}

namespace {

bool isSlash(wchar_t c)
{
    return c == L'\\' || c == L'/';
}

}  // namespace

bool isAbsolutePath(const std::wstring& path)
{
    // The standard library of MinGW does not know shares.
    const bool share = path.size() > 2 && isSlash(path[0]) && isSlash(path[1]) && !isSlash(path[2]);
    return share || std::filesystem::path(path).is_absolute();
}

}  // namespace NV
