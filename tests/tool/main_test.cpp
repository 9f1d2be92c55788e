// The command line as a whole: help, exit codes, standard output without a terminal.

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "contains.h"
#include "tool_program.h"

namespace NV::test {

namespace {

const std::vector<std::string> commands = {"init",    "check",     "keys",       "sign",   "verify",
                                           "encrypt", "decrypt",   "export",     "derive", "log",
                                           "explain", "register",  "unregister", "status", "help",
                                           "version", "completion"};

size_t longestLine(const std::string& text)
{
    size_t longest = 0;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        longest = std::max(longest, line.size());
    return longest;
}

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
        EXPECT_TRUE(contains(result.output, "Examples:\n  keywarden " + command)) << result.output;
        EXPECT_EQ(runTool({"help", command}).output, result.output);
        EXPECT_LE(longestLine(result.output), 80U) << result.output;
    }
}

TEST(CommandLine, SaysThatACommandIsRequired)
{
    for (const auto& arguments : std::vector<std::vector<std::string>>{{}, {"--timeout", "5"}}) {
        const ChildResult result = runTool(arguments);
        EXPECT_EQ(result.exitCode, 2U);
        EXPECT_TRUE(contains(result.output, "a command is required")) << result.output;
        EXPECT_TRUE(contains(result.output, "keywarden --help")) << result.output;
    }
}

TEST(CommandLine, HelpOfTheProgramAndOfAnUnknownCommand)
{
    EXPECT_EQ(runTool({"help"}).output, runTool({"--help"}).output);
    const ChildResult result = runTool({"help", "sing"});
    EXPECT_EQ(result.exitCode, 2U);
    EXPECT_TRUE(contains(result.output, "did you mean \"sign\"?")) << result.output;
}

TEST(CommandLine, HelpHasTheExitCodes)
{
    for (const auto& arguments : {std::vector<std::string>{"--help"}, {"verify", "--help"}}) {
        const std::string text = runTool(arguments).output;
        for (const char* row :
             {"0  good", "1  failed", "2  wrong use", "3  signature bad", "4  PIN cancelled",
              "5  PIN wrong", "6  PIN locked", "7  no token or key", "8  no desktop"})
            EXPECT_TRUE(contains(text, std::string("\n  ") + row)) << text;
    }
}

TEST(CommandLine, PrintsItsVersion)
{
    const ChildResult result = runTool({"--version"});
    EXPECT_EQ(result.exitCode, 0U);
    EXPECT_EQ(result.output.find("keywarden "), 0U) << result.output;
    EXPECT_EQ(runTool({"version"}).output, result.output);
    const Json document = parsed(runTool({"version", "--json"}).output);
    EXPECT_EQ("keywarden " + document.value("version", "") + "\n", result.output);
}

TEST(CommandLine, CompletionHasAllCommandsTheirOptionsAndValues)
{
    const ChildResult result = runTool({"completion", "powershell"});
    EXPECT_EQ(result.exitCode, 0U);
    for (const std::string& command : commands)
        EXPECT_TRUE(contains(result.output, "        '" + command + "' = @('--help")) << command;
    EXPECT_TRUE(contains(result.output, "'sign --pad' = @('pkcs1', 'pss')")) << result.output;
    EXPECT_TRUE(contains(result.output, "'sign --hash' = @('sha1', 'sha256', 'sha384', 'sha512')"));
    EXPECT_FALSE(contains(result.output, "--hmac-key'")) << "a hidden option";
    EXPECT_EQ(parsed(runTool({"completion", "powershell", "--json"}).output).value("script", ""),
              result.output);
    EXPECT_EQ(runTool({"completion", "bash"}).exitCode, 2U);
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
        {"sign", "--key", "a"},
        {"sign", "x", "--key", "a", "--salt", "8"},
        {"sign", "x", "--key", "a", "--pad", "pss", "--salt", "8x"},
        {"sign", "x", "--key", "a", "--pad", "pss", "--salt", "-1"},
        {"sign", "x", "--key", "a", "--pad", "pss", "--salt", ""},
        {"sign", "x", "--key", "a", "--digest", "00", "--hash", "sha256"},
        {"sign", "--key", "a", "--digest", std::string(64, 'a')},
        {"sign", "x", "--key", "a", "--format", "jws", "--hash", "sha1"},
        {"sign", "x", "--key", "a", "--format", "cms", "--ec-format", "raw"},
        {"sign", "-", "--key", "a"},
        {"sign", "-", "-", "--key", "a"},
        {"encrypt", "x", "--key", "a", "-o", "out", "--hash", "sha256"},
        {"derive", "--key", "a", "--peer", "-", "-o", "out", "--kdf", "hmac", "--hmac-key-file",
         "-"},
    };
    for (const auto& arguments : wrong) {
        const ChildResult result = runTool(arguments);
        const std::string name = arguments.empty() ? "(none)" : arguments.back();
        EXPECT_EQ(result.exitCode, 2U) << name << ": " << result.output;
        EXPECT_FALSE(result.output.empty()) << name;
    }
}

TEST(CommandLine, NamesTheUnknownCommandAndTheNearestOne)
{
    for (const auto& arguments : {std::vector<std::string>{"chekc"},
                                  {"--profile", "check", "chekc", "--flag"},
                                  {"--timeout", "30", "chekc"}}) {
        const ChildResult result = runTool(arguments);
        EXPECT_TRUE(contains(result.output, "unknown command \"chekc\"; did you mean \"check\"?"))
            << result.output;
        EXPECT_TRUE(contains(result.output, "keywarden --help")) << result.output;
    }
    EXPECT_FALSE(contains(runTool({"frobnicate"}).output, "did you mean"));
}

TEST(CommandLine, SuggestsTheNearestOption)
{
    const ChildResult result = runTool({"sign", "x", "--key", "a", "--hahs", "sha1"});
    EXPECT_TRUE(contains(result.output, "not expected: --hahs; did you mean \"--hash\"?"))
        << result.output;
}

TEST(CommandLine, WrongUsageIsJsonWithJson)
{
    const std::vector<std::vector<std::string>> wrong = {{"--json"},
                                                         {"chekc", "--json"},
                                                         {"--json", "chekc"},
                                                         {"keys", "--nosuch", "--json"},
                                                         {"verify", "x", "--json", "--key"},
                                                         {"--json", "sign", "x", "--pad", "none"}};
    for (const auto& arguments : wrong) {
        const ChildResult result = runTool(arguments);
        EXPECT_EQ(result.exitCode, 2U) << result.output;
        const Json document = parsed(result.output);
        EXPECT_FALSE(document.value("error", "").empty()) << result.output;
        EXPECT_TRUE(contains(document.value("advice", ""), "--help")) << result.output;
    }
}

// A key for HMAC, wherever it was typed.
TEST(CommandLine, NoErrorRepeatsASecret)
{
    const std::string secret = "00112233445566778899AABBCCDDEEFF";
    const std::vector<std::string> derive = {"derive", "--key", "a", "--peer", "b", "-o", "c"};
    const std::vector<std::vector<std::string>> more = {
        {"--hmac-key", secret},
        {"--hmac-key=" + secret},
        {"--kdf", "hmac", "--hmac-key", secret},
        {"--hmackey", secret},
        {"--hmackey=" + secret},
        {secret},
        {"--prepend", secret + "0"},
        {"--append", "x" + secret},
    };
    for (const auto& arguments : more) {
        std::vector<std::string> all = derive;
        all.insert(all.end(), arguments.begin(), arguments.end());
        for (const bool json : {false, true}) {
            if (json)
                all.emplace_back("--json");
            const ChildResult result = runTool(all);
            EXPECT_EQ(result.exitCode, 2U) << result.output;
            EXPECT_FALSE(contains(result.output, secret)) << result.output;
        }
    }
    EXPECT_TRUE(contains(runTool({"derive", "--hmac-key", secret}).output, "--hmac-key-file FILE"));
}

TEST(CommandLine, CommonOptionsWorkAnywhere)
{
    const TemporaryFolder folder;
    const std::string profile = narrowPath(folder.path());
    for (const auto& arguments :
         {std::vector<std::string>{"--json", "--profile", profile, "check"},
          std::vector<std::string>{"check", "--json", "--profile", profile},
          std::vector<std::string>{"--profile", profile, "check", "--json"},
          std::vector<std::string>{"--timeout", "30", "--profile", profile, "--json", "check"}}) {
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
