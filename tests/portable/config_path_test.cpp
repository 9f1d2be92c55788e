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

TEST(AbsolutePath, IsADriveWithItsRootOrAShareWithEitherSlash)
{
    for (const wchar_t* path :
         {L"\\\\server\\share\\a.dll", L"//server/share/a.dll", L"\\/s/a.dll"})
        EXPECT_TRUE(isAbsolutePath(path)) << std::filesystem::path(path);
    for (const wchar_t* path :
         {L"", L"a.dll", L"./a.dll", L"C:a.dll", L"\\a.dll", L"\\\\", L"///a.dll2"})
        EXPECT_EQ(isAbsolutePath(path), std::filesystem::path(path).is_absolute())
            << std::filesystem::path(path);
#ifdef _WIN32
    EXPECT_TRUE(isAbsolutePath(L"C:\\a.dll"));
    EXPECT_TRUE(isAbsolutePath(L"c:/a.dll"));
    EXPECT_FALSE(isAbsolutePath(L"C:a.dll"));
    EXPECT_FALSE(isAbsolutePath(L"\\a.dll"));
#endif
}

}  // namespace

}  // namespace NV
