// The path of the configuration file.

#include "config/config_path.h"

#include <gtest/gtest.h>

namespace NV {

namespace {

TEST(ConfigurationFile, IsBelowTheProfile)
{
    const std::string expected = "C:\\Users\\user\\.norvanta-keywarden\\nvksprovider.conf";
    EXPECT_EQ(expected, configurationFile(std::string("C:\\Users\\user")));
    EXPECT_EQ("\\.norvanta-keywarden\\nvksprovider.conf", configurationFile(std::string()));
    const std::filesystem::path profile = "profile";
    EXPECT_EQ(profile / ".norvanta-keywarden\\nvksprovider.conf", configurationFile(profile));
}

TEST(ConfigurationFile, OfTheMachineIsBesideTheModule)
{
    const std::filesystem::path folder = "system";
    EXPECT_EQ(folder / "nvksprovider.conf", machineConfigurationFile(folder / "odd.dll"));
}

}  // namespace

}  // namespace NV
