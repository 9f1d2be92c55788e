// Loading the configuration file. The object lives as long as the process, so each test reads keys
// of its own where the order of tests could matter.

#include "config/config.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <ostream>
#include <stdexcept>

#include "folder.h"

namespace NV {

namespace {

class ConfigFile : public testing::Test {
protected:
    void load(std::string_view content)
    {
        test::writeFile(file(), content);
        Config::instance().load(path());
    }

    // The text of the exception that loading raises.
    std::string loadError(std::string_view content)
    {
        try {
            load(content);
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "loaded";
    }

    std::filesystem::path file() const { return folder_.path() / "nvksprovider.conf"; }
    std::string path() const { return test::narrowPath(file()); }

    static std::string get(const std::string& key) { return Config::instance().get(key); }

private:
    test::TemporaryFolder folder_;
};

// What a file's content gives: the values of some keys, and the error that ends the loading.
struct FileCase {
    const char* name;
    const char* content;
    std::map<std::string, std::string> values;
    std::string error = "loaded";
};

void PrintTo(const FileCase& row, std::ostream* out)
{
    *out << row.name;
}

const FileCase fileCases[] = {
    {"ReadsKeysAndValues",
     "logLevel = debug\nlogTypes= file , console\nlogStore=~\\logs\nlogRotate=30\n",
     {{"logLevel", "debug"},
      {"logTypes", "file , console"},
      {"logStore", "~\\logs"},
      {"logRotate", "30"}}},
    {"TrimsSpacesAtBothEndsOfKeyAndValue",
     "   trimmed   =   a b   \n",
     {{"trimmed", "a b"}, {"   trimmed   ", ""}}},
    {"KeepsTabsAndCarriageReturns",
     "tabs=\ta\t\ncr=TRACE\r\nspaceBeforeCr=30 \r\n",
     {{"tabs", "\ta\t"}, {"cr", "TRACE\r"}, {"spaceBeforeCr", "30 \r"}}},
    {"SkipsEmptyLinesAndLinesThatBeginWithANumberSign",
     "\n\n# comment without the sign of equality\n#key=commented\n\nafterComments=1\n\n",
     {{"afterComments", "1"}, {"#key", ""}, {"key=commented", ""}}},
    {"ANumberSignLaterInTheLineBelongsToTheValue",
     "p11File=C:\\path\\lib.dll # comment\n",
     {{"p11File", "C:\\path\\lib.dll # comment"}}},
    {"ANumberSignBehindASpaceIsNoComment",
     " # sign = value\n # no comment\n",
     {{"# sign", "value"}},
     "Invalid line:  # no comment"},
    {"FurtherEqualSignsBelongToTheValue",
     "equals=a=b\nmany===\n",
     {{"equals", "a=b"}, {"many", "=="}}},
    {"ALineMayHaveAnEmptyKeyOrAnEmptyValue",
     "=value\nemptyValue=\nspacesOnly=   \n",
     {{"", "value"}, {"emptyValue", ""}, {"spacesOnly", ""}}},
    {"ALaterLineReplacesAnEarlierOne", "twice=1\ntwice=2\n", {{"twice", "2"}}},
    {"KeysAreCaseSensitive",
     "Case=upper\ncase=lower\n",
     {{"Case", "upper"}, {"case", "lower"}, {"CASE", ""}}},
    {"TheLastLineNeedsNoLineFeed", "beforeLast=1\nlast=2", {{"last", "2"}}},
    {"ControlZIsAnOrdinaryCharacter",
     "controlZ=a\x1A"
     "b\nafterControlZ=1\n",
     {{"controlZ", "a\x1A"
                   "b"},
      {"afterControlZ", "1"}}},
    {"BytesOutsideAsciiPassUnchanged", "bytes=\xE9\xFF\x80\n", {{"bytes", "\xE9\xFF\x80"}}},
    {"ALineWithoutEqualSignIsAnError", "logLevel\n", {}, "Invalid line: logLevel"},
    {"ALineOfSpacesIsAnError", "   \n", {}, "Invalid line:    "},
    {"ACarriageReturnAloneIsAnError", "a=1\r\n\r\nb=2\r\n", {}, "Invalid line: \r"},
    {"LoadingStopsAtTheInvalidLineAndKeepsWhatCameBefore",
     "beforeError=1\nno sign here\nafterError=2\n",
     {{"beforeError", "1"}, {"afterError", ""}},
     "Invalid line: no sign here"},
};

class ConfigFileRow : public ConfigFile, public testing::WithParamInterface<FileCase> {};

TEST_P(ConfigFileRow, GivesTheseValues)
{
    EXPECT_EQ(GetParam().error, loadError(GetParam().content));
    for (const auto& [key, value] : GetParam().values)
        EXPECT_EQ(value, get(key)) << key;
}

INSTANTIATE_TEST_SUITE_P(Files, ConfigFileRow, testing::ValuesIn(fileCases),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(ConfigFile, ASecondFileReplacesOnlyTheKeysThatItHas)
{
    load("changed=1\nunchanged=1\n");
    load("changed=2\n");
    load("");
    EXPECT_EQ("2", get("changed"));
    EXPECT_EQ("1", get("unchanged"));
}

TEST_F(ConfigFile, AMissingFileIsAnError)
{
    const std::string missing = test::narrowPath(file());
    try {
        Config::instance().load(missing);
        FAIL() << "loaded";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ("Cannot open file: " + missing, error.what());
        EXPECT_EQ(typeid(std::runtime_error), typeid(error));
    }
}

TEST_F(ConfigFile, ThePathMayHoldCharactersOutsideAscii)
{
    const test::TemporaryFolder folder(u8"Zo\u00EB");
    const std::filesystem::path file = folder.path() / u8"caf\u00E9.conf";
    test::writeFile(file, "accented=1\n");
    Config::instance().load(test::narrowPath(file));
    EXPECT_EQ("1", get("accented"));
}

TEST(Config, AnAbsentKeyIsInsertedWithAnEmptyValue)
{
    Config& config = Config::instance();
    const std::string& value = config.get("never written");
    EXPECT_EQ("", value);
    // The same element again, and it stays where it is when others come.
    EXPECT_EQ(&value, &config.get("never written"));
    EXPECT_NE(&value, &config.get("never written either"));
    EXPECT_EQ(&value, &config.get("never written"));
}

TEST(Config, ThereIsOneInstance)
{
    EXPECT_EQ(&Config::instance(), &Config::instance());
}

TEST(Config, CarriesTheModuleInstance)
{
    Config& config = Config::instance();
    EXPECT_EQ(nullptr, config.moduleInstance());
    int target = 0;
    // NOLINTNEXTLINE: any address will do, it is not dereferenced.
    auto* const instance = reinterpret_cast<HINSTANCE__*>(&target);
    config.setModuleInstance(instance);
    EXPECT_EQ(instance, config.moduleInstance());
    config.setModuleInstance(nullptr);
}

TEST(TrimSpaces, RemovesOnlySpacesAtBothEnds)
{
    EXPECT_EQ("a b", trimSpaces("  a b "));
    EXPECT_EQ("a", trimSpaces("a"));
    EXPECT_EQ("", trimSpaces("   "));
    EXPECT_EQ("", trimSpaces(""));
    EXPECT_EQ("\t", trimSpaces(" \t "));
}

}  // namespace

}  // namespace NV
