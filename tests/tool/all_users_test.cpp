// The configuration of all users: writing it, and which one holds.

#include <gtest/gtest.h>

#include <string>

#include "contains.h"
#include "scripted_token.h"
#include "tool_program.h"

namespace NV::test {

namespace {

// An installation of its own: the program beside a module.
class AllUsers : public testing::Test {
protected:
    AllUsers()
    {
        copy_file(programFolder() / L"keywarden.exe", installed.path() / "keywarden.exe");
        copy_file(ScriptedToken::widePath(), installed.path() / "odd.dll");
        writeFile(installed.path() / "nvksprovider.dll", "a placeholder for the module");
    }

    std::filesystem::path file() const { return installed.path() / "nvksprovider.conf"; }

    ChildResult run(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), {"--profile", narrowPath(profile.path())});
        ChildResult result = runProgram(
            installed.path() / "keywarden.exe",
            {.arguments = arguments, .environment = {{L"ODD_VENDOR", installed.path().wstring()}}});
        std::erase(result.output, '\r');
        return result;
    }
    Json configuration() const { return parsed(run({"--json", "status"}).output)["configuration"]; }

    TemporaryFolder installed;
    ToolProfile profile;
    std::string library = narrowPath(installed.path() / "odd.dll");
};

TEST_F(AllUsers, GetAFileBesideTheModule)
{
    const ChildResult result = run({"init", "--all-users", "--p11", library});
    EXPECT_EQ(result.exitCode, 0U) << result.output;
    EXPECT_TRUE(contains(result.output, "Written: " + narrowPath(file()))) << result.output;
    EXPECT_FALSE(contains(result.output, "Note:")) << result.output;
    EXPECT_TRUE(contains(readFile(file()), "\np11File=" + library + "\n"));
    EXPECT_FALSE(exists(profile.configFile()));
    EXPECT_EQ(run({"init", "--all-users", "--p11", library}).exitCode, 1U);
    EXPECT_EQ(run({"init", "--all-users", "--p11", library, "--force"}).exitCode, 0U);
}

TEST_F(AllUsers, KeepWhatDiffersInTheirPaths)
{
    const ChildResult result =
        run({"init", "--all-users", "--p11", "%ODD_VENDOR%\\odd.dll", "--log-dir", "~\\odd logs"});
    EXPECT_EQ(result.exitCode, 0U) << result.output;
    const std::string text = readFile(file());
    EXPECT_TRUE(contains(text, "\np11File=%ODD_VENDOR%\\odd.dll\n")) << text;
    EXPECT_TRUE(contains(text, "\nlogStore=~\\odd logs\n")) << text;
    // The program finds the library as the module will.
    EXPECT_TRUE(contains(run({"check"}).output, "ok      library-loads"));
}

TEST_F(AllUsers, NeedALibraryThatIsThere)
{
    const ChildResult result = run({"init", "--all-users", "--p11", "%ODD_VENDOR%\\none.dll"});
    EXPECT_EQ(result.exitCode, 1U);
    EXPECT_TRUE(
        contains(result.output, "there is no file " + narrowPath(installed.path() / "none.dll")))
        << result.output;
    EXPECT_FALSE(exists(file()));
}

TEST_F(AllUsers, LoseTheirFile)
{
    ASSERT_EQ(run({"init", "--all-users", "--p11", library}).exitCode, 0U);
    ASSERT_EQ(run({"init", "--p11", library}).exitCode, 0U);
    EXPECT_EQ(run({"init", "--remove"}).exitCode, 2U);
    ChildResult result = run({"init", "--all-users", "--remove"});
    EXPECT_EQ(result.exitCode, 0U);
    EXPECT_TRUE(contains(result.output, "Removed: " + narrowPath(file()))) << result.output;
    EXPECT_FALSE(exists(file()));
    EXPECT_TRUE(exists(profile.configFile()));
    result = run({"init", "--all-users", "--remove"});
    EXPECT_EQ(result.exitCode, 0U);
    EXPECT_TRUE(contains(result.output, "There is no " + narrowPath(file()))) << result.output;
}

// As an installer gives them, so that a backslash at the end does not quote what follows.
TEST_F(AllUsers, LoseBlanksAtTheEndsOfPaths)
{
    const ChildResult result = run({"init", "--all-users", "--no-test", "--p11", "C:\\odd.dll ",
                                    "--log-dir", "C:\\odd logs\\ "});
    EXPECT_EQ(result.exitCode, 0U) << result.output;
    const std::string text = readFile(file());
    EXPECT_TRUE(contains(text, "\np11File=C:\\odd.dll\n")) << text;
    EXPECT_TRUE(contains(text, "\nlogStore=C:\\odd logs\\\n")) << text;
}

TEST_F(AllUsers, GiveWayToTheUsersOwnFile)
{
    EXPECT_EQ(configuration()["of"], nullptr);
    EXPECT_EQ(configuration()["file"], nullptr);
    ASSERT_EQ(run({"init", "--all-users", "--p11", library}).exitCode, 0U);
    EXPECT_EQ(configuration()["of"], "all-users");
    EXPECT_EQ(configuration()["file"], narrowPath(file()));
    ASSERT_EQ(run({"init", "--p11", library}).exitCode, 0U);
    EXPECT_EQ(configuration()["of"], "user");
    EXPECT_EQ(configuration()["file"], narrowPath(profile.configFile()));
    const ChildResult result = run({"init", "--all-users", "--p11", library, "--force"});
    EXPECT_TRUE(contains(result.output, "Note: you have a file of your own, which holds for you: " +
                                            narrowPath(profile.configFile())))
        << result.output;
}

TEST_F(AllUsers, AreNamedByStatusInWords)
{
    EXPECT_TRUE(contains(run({"status"}).output, "Configuration: none."));
    ASSERT_EQ(run({"init", "--all-users", "--p11", library}).exitCode, 0U);
    EXPECT_TRUE(
        contains(run({"status"}).output, "Configuration: " + narrowPath(file()) +
                                             " (for all users; this user has none of their own)"));
    ASSERT_EQ(run({"init", "--p11", library}).exitCode, 0U);
    EXPECT_TRUE(
        contains(run({"status"}).output,
                 "Configuration: " + narrowPath(profile.configFile()) + " (this user's own)"));
}

}  // namespace

}  // namespace NV::test
