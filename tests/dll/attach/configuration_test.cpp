// What the module makes of its configuration file, seen in the banner of its log and in its
// outputs.

#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "attach_child.h"
#include "folder.h"
#include "profile.h"
#include "provider_module.h"

namespace NV::test {

namespace {

const std::string row(76, '=');
constexpr char attachLine[] = "TRC DllMain:Received : DLL_PROCESS_ATTACH";
constexpr char detachLine[] = "TRC DllMain:Received : DLL_PROCESS_DETACH";

// Standard output has CR LF line ends.
std::string withoutCarriageReturns(std::string text)
{
    std::erase(text, '\r');
    return text;
}

std::string banner(const std::string& level, const std::string& types, const std::string& store,
                   const std::string& rotate)
{
    return "INF " + row + "\nINF LOGGER():STARTED\nINF LOGGER():LogLevel = " + level +
           "\nINF LOGGER():LogTypes = " + types + "\nINF LOGGER():LogStore = " + store +
           "\nINF LOGGER():LogRotate = " + rotate + "\nINF " + row + "\n";
}

// Configurations that end in a log file.
struct Case {
    const char* name;
    std::string_view text;
    const char* level;
    const char* rotate = "7";
};

std::ostream& operator<<(std::ostream& out, const Case& configuration)
{
    return out << configuration.name;
}

#define STORE "logStore=~\\.norvanta-keywarden\\logs\n"
#define FILES "logTypes=FILE\n" STORE

const Case cases[] = {
    {"Trace", "logLevel=TRACE\n" FILES "logRotate=7\n", "0x7f"},
    {"Debug", "logLevel=debug\nlogTypes=file\n" STORE "logRotate=30\n", "0x7e", "30"},
    {"Info", "logLevel=Info \nlogTypes= file \n" STORE "logRotate=0\n", "0x7c", "0"},
    {"Warn", "logLevel=WARN\n" FILES "logRotate=7\n", "0x70"},
    {"Error", "logLevel=ERROR\n" FILES "logRotate=7\n", "0x60"},
    {"Severe", "logLevel=SEVERE\n" FILES "logRotate=7\n", "0x40"},
    {"UnknownLevel", "logLevel=INFORMATION\n" FILES "logRotate=7\n", "0x7c"},
    {"EmptyLevel", "logLevel=\n" FILES "logRotate=7\n", "0x7c"},
    {"NoLevel", FILES "logRotate=7\n", "0x7c"},
    {"KeyInOtherCase", "loglevel=TRACE\n" FILES "logRotate=7\n", "0x7c"},
    {"SpacesAroundKeysAndValues",
     "  logLevel  =  TRACE  \n logTypes = FILE,OTHER \n logStore = ~\\.norvanta-keywarden\\logs \n"
     " logRotate = 12 \n",
     "0x7f", "12"},
    {"CommentsAndEmptyLines", "# logLevel=ERROR\n\nlogLevel=TRACE\n#\n\n" FILES "logRotate=7\n\n",
     "0x7f"},
    {"NumberSignLaterInTheLine", "logLevel=TRACE # all\n" FILES "logRotate=7 # days\n", "0x7c"},
    {"SpaceBeforeNumberSign", " # logLevel=ERROR\nlogLevel=TRACE\n" FILES "logRotate=7\n", "0x7f"},
    {"LaterLineWins", "logLevel=ERROR\nlogLevel=TRACE\n" FILES "logRotate=3\nlogRotate=4\n", "0x7f",
     "4"},
    {"FurtherEqualSigns", "logLevel=TRACE=DEBUG\n" FILES "logRotate=7\n=value\nkey=\n", "0x7c"},
    {"NoLineFeedAtTheEnd", "logLevel=TRACE\n" FILES "logRotate=9", "0x7f", "9"},
    {"CarriageReturnsInTheValues", "logLevel=TRACE\r\nlogTypes=FILE,\r\n" STORE "logRotate=30\r\n",
     "0x7c"},
    {"RotateWithSign", "logLevel=TRACE\n" FILES "logRotate=-1\n", "0x7f"},
    {"RotateWithSpaceInside", "logLevel=TRACE\n" FILES "logRotate=1 2\n", "0x7f"},
    {"LargestRotate", "logLevel=TRACE\n" FILES "logRotate=2147483647\n", "0x7f", "2147483647"},
};

#undef FILES
#undef STORE

class ConfiguredLog : public testing::TestWithParam<Case> {};

TEST_P(ConfiguredLog, BeginsWithABannerThatShowsTheSettings)
{
    const Case& configuration = GetParam();
    const Profile profile;
    profile.writeConfig(configuration.text);
    {
        const ProviderModule module;
    }
    const std::string store = profile.narrow() + "\\.norvanta-keywarden\\logs";
    // Whatever the level, all lines are there.
    expectBlock(profile.log(), banner(configuration.level, "0x02", store, configuration.rotate) +
                                   attachLine + "\n" + detachLine);
}

INSTANTIATE_TEST_SUITE_P(Values, ConfiguredLog, testing::ValuesIn(cases),
                         [](const auto& configuration) {
                             return std::string(configuration.param.name);
                         });

class Configuration : public testing::Test {
protected:
    // Everything that the module writes while it is loaded and unloaded once.
    std::string consoleOf(std::string_view configuration)
    {
        profile_.writeConfig(configuration);
        const ChildResult result = runChild("loadAndUnload");
        EXPECT_EQ(result.exitCode, 0u) << result.output;
        return withoutCarriageReturns(result.output);
    }

    Profile profile_;
};

TEST_F(Configuration, TheConsoleIsStandardOutput)
{
    const std::string output =
        consoleOf("logLevel=WARN\nlogTypes=CONSOLE\nlogStore=~\\logs\nlogRotate=5\n");
    expectBlock(parseLog(output), banner("0x70", "0x01", profile_.narrow() + "\\logs", "5") +
                                      attachLine + "\n" + detachLine);
    EXPECT_FALSE(std::filesystem::exists(profile_.path() / "logs"));
}

TEST_F(Configuration, BothOutputsGetTheSameLines)
{
    const std::string output =
        consoleOf("logLevel=TRACE\nlogTypes=console,file\nlogStore=~\\logs\nlogRotate=5\n");
    const LogLines console = parseLog(output);
    EXPECT_EQ(console.size(), 9u);
    const LogLines file = readLog(profile_.path() / "logs");
    ASSERT_EQ(file.size(), console.size());
    for (size_t i = 0; i < file.size(); ++i)
        EXPECT_EQ(file[i].raw, console[i].raw);
}

class Silent : public Configuration, public testing::WithParamInterface<const char*> {};

TEST_P(Silent, WritesNothingAnywhere)
{
    EXPECT_EQ(consoleOf(GetParam()), "");
    EXPECT_EQ(entryNames(profile_.path()), std::vector<std::string>{".norvanta-keywarden"});
    EXPECT_EQ(entryNames(profile_.path() / ".norvanta-keywarden"),
              std::vector<std::string>{"nvksprovider.conf"});
}

INSTANTIATE_TEST_SUITE_P(Types, Silent,
                         testing::Values("logLevel=TRACE\nlogStore=~\\logs\nlogRotate=7\n",
                                         "logTypes=\nlogStore=~\\logs\nlogRotate=7\n",
                                         "logTypes=CONSOLE;FILE\nlogStore=~\\logs\nlogRotate=7\n",
                                         "logTypes=FILE\r\nlogStore=~\\logs\nlogRotate=7\n",
                                         "logTypes=FILE\nlogRotate=7\n",
                                         "logTypes=FILE\nlogStore=\nlogRotate=7\n"));

TEST_F(Configuration, TheStoreMayStandAnywhere)
{
    const TemporaryFolder elsewhere;
    profile_.writeConfig("logTypes=FILE\nlogStore=" + narrowPath(elsewhere.path()) +
                         "/made/for/it\nlogRotate=7\n");
    {
        const ProviderModule module;
    }
    EXPECT_EQ(readLog(elsewhere.path() / "made" / "for" / "it").size(), 9u);
}

// A "~" inside the path is replaced too.
TEST_F(Configuration, EveryTildeOfTheStoreIsReplaced)
{
    profile_.writeConfig("logTypes=CONSOLE\nlogStore=a~b~\nlogRotate=7\n");
    const ChildResult result = runChild("loadAndUnload");
    const std::string profile = profile_.narrow();
    EXPECT_NE(result.output.find("LogStore = a" + profile + "b" + profile), std::string::npos)
        << result.output;
}

TEST(ConfigurationProfile, MayHaveAFolderOutsideAscii)
{
    const Profile profile(L"J\u00FCrgen \u00C5");
    profile.writeConfig("logLevel=TRACE\nlogTypes=FILE\nlogStore=~\\.norvanta-keywarden\\logs\n"
                        "logRotate=7\n");
    {
        const ProviderModule module;
    }
    expectBlock(profile.log(),
                banner("0x7f", "0x02", profile.narrow() + "\\.norvanta-keywarden\\logs", "7") +
                    attachLine + "\n" + detachLine);
    EXPECT_NE(profile.narrow().find("J\xFCrgen \xC5"), std::string::npos);
}

// Dated files are deleted with the first record.

std::string datedName(int daysAgo)
{
    const std::time_t now = std::time(nullptr);
    std::tm day = *std::localtime(&now);
    day.tm_mday -= daysAgo;
    day.tm_isdst = -1;
    EXPECT_NE(std::mktime(&day), std::time_t{-1});
    char name[40];
    EXPECT_GT(std::strftime(name, sizeof name, "nvksprovider-%Y%m%d.log", &day), 0u);
    return name;
}

TEST_F(Configuration, OldLogsAreDeletedWhenTheModuleIsLoaded)
{
    const auto logs = profile_.logDirectory();
    for (const int days : {1, 3, 4, 5, 40})
        writeFile(logs / datedName(days), "2026-01-01 old\n");
    writeFile(logs / "nvksprovider-.log", "");
    writeFile(logs / "other-20200101.log", "");
    profile_.writeConfig("logTypes=FILE\nlogStore=~\\.norvanta-keywarden\\logs\nlogRotate=3\n");
    {
        const ProviderModule module;
    }
    std::vector<std::string> expected = {"nvksprovider-.log", datedName(3), datedName(1),
                                         datedName(0), "other-20200101.log"};
    EXPECT_EQ(entryNames(logs), expected);
}

}  // namespace

}  // namespace NV::test
