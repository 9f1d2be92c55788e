// The configuration of the modern behaviour (M20): what Config takes of a file, and what the module makes of
// it.

#include <filesystem>
#include <string>
#include <vector>

#include "config/config.h"
#include "config/config_keys.h"
#include "folder.h"
#include "module_fixture.h"

namespace NV::test {
namespace {

class ModernConfiguration : public testing::Test {
protected:
    ~ModernConfiguration() override { load("logRotate=7\n"); }

    static Config& load(const std::string& text)
    {
        Config::instance().load({.path = "odd.conf", .opened = true, .text = text});
        return Config::instance();
    }

    static LoggerSettings settings(const std::string& text)
    {
        LoggerSettings settings;
        applyLogSettings(load(text), "C:\\Users\\user", settings);
        return settings;
    }

    static Behaviour behaviour(const std::string& text) { return load(text).mode().behaviour(); }
};

TEST_F(ModernConfiguration, isChosenByOneLine)
{
    EXPECT_EQ(Behaviour::modern, behaviour("\xEF\xBB\xBFmode = modern\r\nlogRotate=7\r\n"));
    EXPECT_EQ(Behaviour::classic, behaviour("mode=classic\n"));
    EXPECT_EQ(Behaviour::classic, behaviour("logRotate=7\n"));
    EXPECT_EQ(Behaviour::classic, behaviour("mode=Modern\n"));
}

TEST_F(ModernConfiguration, silentPromptIsExact)
{
    const auto obeys = [](const std::string& text) { return load(text).mode().obeysSilentFlag(); };
    EXPECT_FALSE(obeys("mode=modern\nsilentPrompt=yes\n"));
    EXPECT_TRUE(obeys("mode=modern\n"));
    for (const char* value : {"", "no", "Yes", "YES", "1", "yes!", "\"yes\""})
        EXPECT_TRUE(obeys("mode=modern\nsilentPrompt=" + std::string(value) + "\n")) << value;
}

// A classic file in the same process does not see what a modern one has left.
TEST_F(ModernConfiguration, leavesNothingBehind)
{
    load("mode=modern\nsilentPrompt=yes\nnonsense\n");
    EXPECT_EQ(1U, Config::instance().problems().size());
    load("mode=modern\n");
    EXPECT_TRUE(Config::instance().problems().empty());
    EXPECT_TRUE(Config::instance().mode().obeysSilentFlag());
    EXPECT_EQ(Behaviour::classic, behaviour("logRotate=7\n"));
}

TEST_F(ModernConfiguration, aModeThatNobodyKnowsIsAProblem)
{
    for (const char* line :
         {"mode=Modern\n", "mode=Modern\r\n", "mode = Modern", "\xEF\xBB\xBFmode=Modern\n"})
        EXPECT_EQ(std::vector<std::string>{"Invalid mode: Modern"}, load(line).problems()) << line;
    EXPECT_EQ(std::vector<std::string>{"Invalid mode: "}, load("mode=\n").problems());
    EXPECT_EQ(std::vector<std::string>{"Invalid mode: a?b"}, load("mode=a\tb\n").problems());
    for (const char* line :
         {"mode=classic\n", "mode=classic\r\n", "mode=modern\n", "Mode=odd\n", ""})
        EXPECT_TRUE(load(line).problems().empty()) << line;
}

TEST_F(ModernConfiguration, unreadableLinesAreProblems)
{
    EXPECT_EQ((std::vector<std::string>{"Invalid line[2]: nonsense", "Invalid line[3]: =x"}),
              load("mode=modern\nnonsense\n=x\nlogRotate=7\n").problems());
}

TEST_F(ModernConfiguration, aProblemIsALineOfTheLog)
{
    const std::string umlauts = [] {
        std::string text;
        while (text.size() < 200)
            text += "\xC3\xB6";
        return text;
    }();
    std::string cut = load("mode=modern\n\x01\x7F " + umlauts).problems().at(0);
    EXPECT_TRUE(cut.starts_with("Invalid line[2]: ?? \xC3\xB6")) << cut;
    EXPECT_TRUE(cut.ends_with("\xC3\xB6...")) << cut;
    EXPECT_LE(cut.size(), 130U);

    std::string many = "mode=modern\n";
    for (int i = 0; i < 1000; ++i)
        many += "nonsense\n";
    const auto& problems = load(many).problems();
    ASSERT_EQ(11U, problems.size());
    EXPECT_EQ("Invalid lines: 990 more", problems.back());
}

TEST_F(ModernConfiguration, logRotateIsSevenUnlessItIsANumber)
{
    EXPECT_EQ(7, settings("mode=modern\n").rotate);
    EXPECT_EQ(30, settings("mode=modern\nlogRotate=30\r\n").rotate);
    EXPECT_EQ(0, settings("mode=modern\nlogRotate=0\n").rotate);
    EXPECT_EQ(2147483647, settings("mode=modern\nlogRotate=2147483647\n").rotate);
    for (const char* value : {"", "2147483648", "99999999999999999999", "-1", "-0", "+3", "7 days",
                              "3.5", "0x10", "3\xB2"})
        EXPECT_EQ(7, settings("mode=modern\nlogRotate=" + std::string(value) + "\n").rotate)
            << value;
}

TEST_F(ModernConfiguration, pathsAreExpanded)
{
    EXPECT_EQ("C:\\Users\\user\\a b", settings("mode=modern\nlogStore=\"~\\a b\"\r\n").store);
    EXPECT_EQ("C:\\a b.dll", configuredLibrary(load("mode=modern\np11File=\"C:\\a b.dll\"\n")));
    // Not in classic.
    EXPECT_EQ("\"C:\\Users\\user\\a\"", settings("logRotate=7\nlogStore=\"~\\a\"\n").store);
    EXPECT_EQ("\"C:\\%PATH%.dll\"", configuredLibrary(load("p11File=\"C:\\%PATH%.dll\"\n")));
    EXPECT_EQ("C:\\a\r", configuredLibrary(load("p11File=C:\\a\r\n")));
}

TEST_F(ModernConfiguration, setsTheLogger)
{
    EXPECT_TRUE(settings("mode=modern\n").gatesAllLevels);
    EXPECT_TRUE(settings("mode=modern\n").survivesFailures);
    EXPECT_FALSE(settings("logRotate=7\n").gatesAllLevels);
    EXPECT_FALSE(settings("logRotate=7\n").survivesFailures);
}

// The module.

class ConfiguredModule : public ModernModuleTest {
protected:
    // The ERR records that attaching writes.
    std::string problems(const std::string& configuration)
    {
        std::filesystem::remove_all(profile.logDirectory());
        profile.writeConfig(configuration);
        module.emplace();
        std::string written = messages(profile.log(), "ERR");
        module.reset();
        return written;
    }

    const std::string log =
        "logLevel=TRACE\nlogTypes=FILE\nlogStore=~\\.norvanta-keywarden\\logs\n";
};

TEST_F(ConfiguredModule, logsWhatItCannotRead)
{
    EXPECT_EQ("Invalid line[5]: nonsense\n", problems("mode=modern\n" + log + "nonsense\n"));
}

// In classic, only SEV obeys the level.
TEST_F(ConfiguredModule, logsAModeThatNobodyKnowsAndIsClassic)
{
    EXPECT_EQ("Invalid mode: modren\n",
              problems("mode=modren\nlogRotate=7\n" + log + "logLevel=SEVERE\n"));
    EXPECT_EQ("", problems("mode=modern\nnonsense\n" + log + "logLevel=SEVERE\n"));
}

TEST_F(ConfiguredModule, saysNothingOfAGoodFile)
{
    EXPECT_EQ("", problems("mode=modern\n" + log));
    EXPECT_EQ("", problems("mode=classic\nlogRotate=7\n" + log));
    EXPECT_EQ("", problems("logRotate=7\n" + log));
}

TEST_F(ConfiguredModule, findsItsLibraryInAFileOfAnEditor)
{
    const std::u8string library = std::filesystem::path(ScriptedToken::widePath()).u8string();
    std::string text = "\xEF\xBB\xBFmode=modern\r\n\r\n  # the token\r\n" + log + "p11File = \"" +
                       std::string(library.begin(), library.end()) + "\"\r\n";
    profile.writeConfig(text);
    start();
    EXPECT_NE(0U, handle());
}

}  // namespace
}  // namespace NV::test
