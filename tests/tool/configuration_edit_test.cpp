// Values of a configuration file are changed, and nothing else of it.

#include <gtest/gtest.h>

#include <windows.h>

#include <filesystem>
#include <string>
#include <vector>

#include "file_rights.h"
#include "folder.h"
#include "output.h"
#include "system/configuration_edit.h"

namespace NV::test {

namespace {

using tool::withValues;

TEST(ConfigurationEdit, KeepsAllButTheValue)
{
    EXPECT_EQ(withValues("# logLevel=INFO\nlogLevel=INFO\np11File=x\n", {{"logLevel", "TRACE"}}),
              "# logLevel=INFO\nlogLevel=TRACE\np11File=x\n");
    EXPECT_EQ(withValues("\xEF\xBB\xBFlogLevel = INFO \r\nodd\r\n\r\np11File=\xFF",
                         {{"logLevel", "TRACE"}}),
              "\xEF\xBB\xBFlogLevel = TRACE \r\nodd\r\n\r\np11File=\xFF");
    EXPECT_EQ(withValues("logLevel=\nlogLevel=INFO", {{"logLevel", "TRACE"}}),
              "logLevel=TRACE\nlogLevel=TRACE");
    EXPECT_EQ(withValues("loglevel=INFO\nxlogLevel=1\n", {{"logLevel", "A"}}),
              "loglevel=INFO\nxlogLevel=1\nlogLevel=A\n");
}

TEST(ConfigurationEdit, AddsAMissingKeyAtTheEnd)
{
    EXPECT_EQ(withValues("", {{"logLevel", "TRACE"}}), "logLevel=TRACE\n");
    EXPECT_EQ(withValues("a=1", {{"logLevel", "TRACE"}}), "a=1\nlogLevel=TRACE\n");
    EXPECT_EQ(withValues("a=1\r\nb=2", {{"logLevel", "TRACE"}, {"logTypes", "FILE"}}),
              "a=1\r\nb=2\r\nlogLevel=TRACE\r\nlogTypes=FILE\r\n");
}

class ConfigurationFile : public testing::Test {
protected:
    ConfigurationFile() { writeFile(file, "logLevel=INFO\n# end\n"); }

    bool edit() { return tool::editConfiguration(out, file, {{"logLevel", "TRACE"}}); }

    tool::Output out;
    TemporaryFolder folder;
    std::filesystem::path file = folder.path() / "nvksprovider.conf";
};

TEST_F(ConfigurationFile, IsEditedAndKeepsItsRights)
{
    setRights(file, writableByAll);
    const std::string rights = rightsOf(file);
    EXPECT_TRUE(edit());
    EXPECT_EQ(readFile(file), "logLevel=TRACE\n# end\n");
    EXPECT_EQ(rightsOf(file), rights);
    EXPECT_FALSE(edit());
    EXPECT_EQ(entryNames(folder.path()), std::vector<std::string>{"nvksprovider.conf"});
}

// The text of the open file is what a program reads that has opened it before.
TEST_F(ConfigurationFile, IsReplacedAsAWhole)
{
    HANDLE opened = CreateFileW(file.c_str(), GENERIC_READ,
                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(opened, INVALID_HANDLE_VALUE);
    EXPECT_TRUE(edit());
    char text[64] = "";
    DWORD size = 0;
    EXPECT_TRUE(ReadFile(opened, text, sizeof text, &size, nullptr));
    CloseHandle(opened);
    EXPECT_EQ(std::string(text, size), "logLevel=INFO\n# end\n");
    EXPECT_EQ(readFile(file), "logLevel=TRACE\n# end\n");
}

}  // namespace

}  // namespace NV::test
