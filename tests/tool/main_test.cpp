// The command line as a whole: help, exit codes, standard output without a terminal.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "contains.h"
#include "tool_program.h"

namespace NV::test {

namespace {

const std::vector<std::string> commands = {"init",     "check",      "keys",   "sign",   "verify",
                                           "encrypt",  "decrypt",    "export", "derive", "log",
                                           "register", "unregister", "status"};

TEST(CommandLine, HelpListsTheCommands)
{
    for (const char* option : {"--help", "-h"}) {
        const ChildResult result = runTool({option});
        EXPECT_EQ(result.exitCode, 0U);
        for (const std::string& command : commands)
            EXPECT_TRUE(contains(result.output, "\n  " + command + " ")) << result.output;
        for (const char* common : {"--json", "--profile", "--version"})
            EXPECT_TRUE(contains(result.output, common)) << result.output;
        EXPECT_FALSE(contains(result.output, "\x1b"));
    }
}

TEST(CommandLine, EachCommandHasHelp)
{
    for (const std::string& command : commands) {
        const ChildResult result = runTool({command, "--help"});
        EXPECT_EQ(result.exitCode, 0U) << command;
        EXPECT_TRUE(contains(result.output, "Usage: keywarden " + command)) << result.output;
        EXPECT_TRUE(contains(result.output, "--help")) << result.output;
    }
}

TEST(CommandLine, PrintsItsVersion)
{
    const ChildResult result = runTool({"--version"});
    EXPECT_EQ(result.exitCode, 0U);
    EXPECT_EQ(result.output.find("keywarden "), 0U) << result.output;
}

TEST(CommandLine, WrongUsageIsExitCode2)
{
    const std::vector<std::vector<std::string>> wrong = {
        {},
        {"chekc"},
        {"--nosuch"},
        {"check", "--nosuch"},
        {"check", "more"},
        {"init", "--p11"},
        {"init", "--log-level", "LOUD"},
        {"init", "--p11", "x", "more"},
        {"log", "--slow", "soon"},
        {"log", "--slow", "-1"},
        {"log", "a.log", "b.log"},
        {"--profile"},
        {"check", "init"},
    };
    for (const auto& arguments : wrong) {
        const ChildResult result = runTool(arguments);
        const std::string name = arguments.empty() ? "(none)" : arguments.back();
        EXPECT_EQ(result.exitCode, 2U) << name << ": " << result.output;
        EXPECT_FALSE(result.output.empty()) << name;
    }
}

TEST(CommandLine, NamesTheUnknownCommand)
{
    const ChildResult result = runTool({"chekc"});
    EXPECT_TRUE(contains(result.output, "unknown command \"chekc\"")) << result.output;
    EXPECT_TRUE(contains(result.output, "keywarden --help")) << result.output;
}

TEST(CommandLine, CommonOptionsWorkAnywhere)
{
    const TemporaryFolder folder;
    const std::string profile = narrowPath(folder.path());
    for (const auto& arguments :
         {std::vector<std::string>{"--json", "--profile", profile, "check"},
          std::vector<std::string>{"check", "--json", "--profile", profile},
          std::vector<std::string>{"--profile", profile, "check", "--json"}}) {
        const ChildResult result = runTool(arguments);
        EXPECT_EQ(result.exitCode, 1U) << result.output;
        const Json step = stepOf(parsed(result.output), "configuration-file");
        EXPECT_TRUE(contains(step["text"].get<std::string>(), profile)) << step;
    }
}

TEST(CommandLine, PrintsAFailureAsJson)
{
    const TemporaryFolder folder;
    const std::string file = narrowPath(folder.path() / "no.log");
    ChildResult result = runTool({"log", file});
    EXPECT_EQ(result.exitCode, 1U);
    EXPECT_EQ(result.output.find("keywarden: " + file + " cannot be read: "), 0U) << result.output;
    result = runTool({"--json", "log", file});
    EXPECT_EQ(result.exitCode, 1U);
    const Json document = parsed(result.output);
    EXPECT_TRUE(document["error"].is_string()) << result.output;
    EXPECT_TRUE(document["advice"].is_string()) << result.output;
}

TEST(CommandLine, WorksWithNoColorSet)
{
    const TemporaryFolder folder;
    const ChildResult result = runTool({"--profile", narrowPath(folder.path()), "check"},
                                       {.environment = {{L"NO_COLOR", L"1"}}});
    EXPECT_EQ(result.exitCode, 1U);
    EXPECT_FALSE(contains(result.output, "\x1b"));
}

}  // namespace

}  // namespace NV::test
