// Loading the configuration file. The object lives as long as the process, so each test reads keys
// of its own where the order of tests could matter.

#include "config/config.h"

#include <gtest/gtest.h>

#include <memory>
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

TEST_F(ConfigFile, ReadsKeysAndValues)
{
    load("logLevel = debug\nlogTypes= file , console\nlogStore=~\\logs\nlogRotate=30\n");
    EXPECT_EQ("debug", get("logLevel"));
    EXPECT_EQ("file , console", get("logTypes"));
    EXPECT_EQ("~\\logs", get("logStore"));
    EXPECT_EQ("30", get("logRotate"));
}

TEST_F(ConfigFile, TrimsSpacesAtBothEndsOfKeyAndValue)
{
    load("   trimmed   =   a b   \n");
    EXPECT_EQ("a b", get("trimmed"));
    EXPECT_EQ("", get("   trimmed   "));
}

TEST_F(ConfigFile, KeepsTabsAndCarriageReturns)
{
    load("tabs=\ta\t\ncr=TRACE\r\nspaceBeforeCr=30 \r\n");
    EXPECT_EQ("\ta\t", get("tabs"));
    EXPECT_EQ("TRACE\r", get("cr"));
    EXPECT_EQ("30 \r", get("spaceBeforeCr"));
}

TEST_F(ConfigFile, SkipsEmptyLinesAndLinesThatBeginWithANumberSign)
{
    load("\n\n# comment without the sign of equality\n#key=commented\n\nafterComments=1\n\n");
    EXPECT_EQ("1", get("afterComments"));
    EXPECT_EQ("", get("#key"));
    EXPECT_EQ("", get("key=commented"));
}

TEST_F(ConfigFile, ANumberSignLaterInTheLineBelongsToTheValue)
{
    load("p11File=C:\\path\\lib.dll # comment\n");
    EXPECT_EQ("C:\\path\\lib.dll # comment", get("p11File"));
}

TEST_F(ConfigFile, ANumberSignBehindASpaceIsNoComment)
{
    load(" # sign = value\n");
    EXPECT_EQ("value", get("# sign"));
    EXPECT_EQ("Invalid line:  # no comment", loadError(" # no comment\n"));
}

TEST_F(ConfigFile, FurtherEqualSignsBelongToTheValue)
{
    load("equals=a=b\nmany===\n");
    EXPECT_EQ("a=b", get("equals"));
    EXPECT_EQ("==", get("many"));
}

TEST_F(ConfigFile, ALineMayHaveAnEmptyKeyOrAnEmptyValue)
{
    load("=value\nemptyValue=\nspacesOnly=   \n");
    EXPECT_EQ("value", get(""));
    EXPECT_EQ("", get("emptyValue"));
    EXPECT_EQ("", get("spacesOnly"));
}

TEST_F(ConfigFile, ALaterLineReplacesAnEarlierOne)
{
    load("twice=1\ntwice=2\n");
    EXPECT_EQ("2", get("twice"));
    load("twice=3\n");
    EXPECT_EQ("3", get("twice"));
}

TEST_F(ConfigFile, KeysAreCaseSensitive)
{
    load("Case=upper\ncase=lower\n");
    EXPECT_EQ("upper", get("Case"));
    EXPECT_EQ("lower", get("case"));
    EXPECT_EQ("", get("CASE"));
}

TEST_F(ConfigFile, TheLastLineNeedsNoLineFeed)
{
    load("beforeLast=1\nlast=2");
    EXPECT_EQ("2", get("last"));
}

TEST_F(ConfigFile, AnEmptyFileChangesNothing)
{
    load("kept=1\n");
    load("");
    EXPECT_EQ("1", get("kept"));
}

TEST_F(ConfigFile, ControlZIsAnOrdinaryCharacter)
{
    load("controlZ=a\x1A"
         "b\nafterControlZ=1\n");
    EXPECT_EQ("a\x1A"
              "b",
              get("controlZ"));
    EXPECT_EQ("1", get("afterControlZ"));
}

TEST_F(ConfigFile, BytesOutsideAsciiPassUnchanged)
{
    load("bytes=\xE9\xFF\x80\n");
    EXPECT_EQ("\xE9\xFF\x80", get("bytes"));
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

TEST_F(ConfigFile, ALineWithoutEqualSignIsAnError)
{
    EXPECT_EQ("Invalid line: logLevel", loadError("logLevel\n"));
    EXPECT_EQ("Invalid line: no sign here", loadError("a=1\nno sign here\nb=2\n"));
}

TEST_F(ConfigFile, ALineOfSpacesIsAnError)
{
    EXPECT_EQ("Invalid line:    ", loadError("   \n"));
}

TEST_F(ConfigFile, ACarriageReturnAloneIsAnError)
{
    EXPECT_EQ("Invalid line: \r", loadError("a=1\r\n\r\nb=2\r\n"));
}

TEST_F(ConfigFile, LoadingStopsAtTheInvalidLineAndKeepsWhatCameBefore)
{
    EXPECT_EQ("Invalid line: invalid", loadError("beforeError=1\ninvalid\nafterError=2\n"));
    EXPECT_EQ("1", get("beforeError"));
    EXPECT_EQ("", get("afterError"));
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
