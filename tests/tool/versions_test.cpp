// Versions of the system and of files.

#include "system/versions.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "child.h"
#include "folder.h"

namespace NV::test {

namespace {

TEST(Versions, TellTheSystems)
{
    EXPECT_TRUE(std::regex_match(tool::windowsVersion(), std::regex(R"(\d+\.\d+\.\d+(\.\d+)?)")))
        << tool::windowsVersion();
}

TEST(Versions, ReadAResource)
{
    const std::string version = tool::fileVersion(programFolder() / "nvksprovider.dll");
    EXPECT_TRUE(std::regex_match(version, std::regex(R"(0\.\d+\.\d+\.\d+)"))) << version;
    EXPECT_EQ(tool::fileVersion(programFolder() / "keywarden.exe"), version);
}

TEST(Versions, AreEmptyWithoutAResource)
{
    const TemporaryFolder folder;
    const auto text = folder.path() / "odd.dll";
    writeFile(text, "odd");
    EXPECT_EQ(tool::fileVersion(text), "");
    EXPECT_EQ(tool::fileVersion(folder.path() / "missing.dll"), "");
    EXPECT_EQ(tool::fileVersion(ownProgram()), "");
}

}  // namespace

}  // namespace NV::test
