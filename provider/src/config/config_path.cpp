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

}  // namespace NV
