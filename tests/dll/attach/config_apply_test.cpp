// The four logging keys, from text to setting. The functions are linked into the test.

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "config/config.h"
#include "config/config_keys.h"
#include "config/config_values.h"
#include "folder.h"
#include "logger/logger.h"

namespace NV::test {

namespace {

TEST(ParseLogLevel, KnowsSixNamesInAnyCase)
{
    EXPECT_EQ(parseLogLevel("TRACE"), 0x7Fu);
    EXPECT_EQ(parseLogLevel("DEBUG"), 0x7Eu);
    EXPECT_EQ(parseLogLevel("INFO"), 0x7Cu);
    EXPECT_EQ(parseLogLevel("WARN"), 0x70u);
    EXPECT_EQ(parseLogLevel("ERROR"), 0x60u);
    EXPECT_EQ(parseLogLevel("SEVERE"), 0x40u);
    EXPECT_EQ(parseLogLevel("trace"), 0x7Fu);
    EXPECT_EQ(parseLogLevel("Severe"), 0x40u);
    EXPECT_EQ(parseLogLevel("eRRoR"), 0x60u);
}

TEST(ParseLogLevel, TakesEverythingElseForInfo)
{
    constexpr const char* umlaut = "tr\xE4"
                                   "ce";
    for (const char* value : {"", "INFORMATION", "TRAC", "WARNING", "TRACE\r", " TRACE", "TRACE ",
                              "TRACE,DEBUG", "0x7F", "7", "OFF", umlaut})
        EXPECT_EQ(parseLogLevel(value), 0x7Cu) << value;
}

TEST(ParseLogTypes, CombinesTheNamesOfTheList)
{
    EXPECT_EQ(parseLogTypes("CONSOLE"), 1u);
    EXPECT_EQ(parseLogTypes("FILE"), 2u);
    EXPECT_EQ(parseLogTypes("CONSOLE,FILE"), 3u);
    EXPECT_EQ(parseLogTypes("file , console"), 3u);
    EXPECT_EQ(parseLogTypes("  File  "), 2u);
    EXPECT_EQ(parseLogTypes("FILE,FILE"), 2u);
    EXPECT_EQ(parseLogTypes("FILE,"), 2u);
    EXPECT_EQ(parseLogTypes(",FILE"), 2u);
    EXPECT_EQ(parseLogTypes(",,FILE,,CONSOLE,,"), 3u);
}

TEST(ParseLogTypes, PassesOverOtherNames)
{
    EXPECT_EQ(parseLogTypes("SYSLOG,FILE,stdout"), 2u);
    for (const char* value :
         {"", ",", " ", "CONSOLE;FILE", "FILES", "FILE\r", "\tFILE", "FI LE", "CONSOLE FILE", "2"})
        EXPECT_EQ(parseLogTypes(value), 0u) << value;
}

TEST(ParseLogRotate, ReadsDecimalDigits)
{
    EXPECT_EQ(parseLogRotate("30", 7), 30);
    EXPECT_EQ(parseLogRotate("0", 7), 0);
    EXPECT_EQ(parseLogRotate("007", 9), 7);
    EXPECT_EQ(parseLogRotate("010", 7), 10);
    EXPECT_EQ(parseLogRotate("2147483647", 7), 2147483647);
    EXPECT_EQ(parseLogRotate("00000000000000000005", 7), 5);
}

TEST(ParseLogRotate, KeepsTheDaysForAnyOtherCharacter)
{
    for (const char* value :
         {"-1", "+3", "3 0", "30\r", "3.5", "0x10", "thirty", "30d", " ", "\xB2", "99999999999x"})
        EXPECT_EQ(parseLogRotate(value, 7), 7) << value;
}

template <typename Error>
void expectRotateError(const std::string& value, const char* text)
{
    try {
        parseLogRotate(value, 7);
        ADD_FAILURE() << "\"" << value << "\" was taken";
    } catch (const Error& error) {
        EXPECT_STREQ(error.what(), text) << value;
    }
}

TEST(ParseLogRotate, RefusesTheEmptyText)
{
    expectRotateError<std::invalid_argument>("", "invalid stoi argument");
}

TEST(ParseLogRotate, RefusesNumbersPast32Bits)
{
    expectRotateError<std::out_of_range>("2147483648", "stoi argument out of range");
    expectRotateError<std::out_of_range>("4294967296", "stoi argument out of range");
    expectRotateError<std::out_of_range>(std::string(400, '9'), "stoi argument out of range");
}

TEST(ExpandLogStore, ReplacesEveryTilde)
{
    EXPECT_EQ(expandLogStore("~\\logs", "C:\\Users\\user"), "C:\\Users\\user\\logs");
    EXPECT_EQ(expandLogStore("~", "P"), "P");
    EXPECT_EQ(expandLogStore("~~a~", "P"), "PPaP");
    EXPECT_EQ(expandLogStore("C:\\logs", "P"), "C:\\logs");
    EXPECT_EQ(expandLogStore("", "P"), "");
    EXPECT_EQ(expandLogStore("~\\x", ""), "\\x");
    // What it puts in is not looked at again: short names hold tildes.
    EXPECT_EQ(expandLogStore("~\\x", "C:\\LONGNA~1"), "C:\\LONGNA~1\\x");
}

// All four together.

class ApplyLogSettings : public testing::Test {
protected:
    LoggerSettings apply(std::string_view text)
    {
        // A key that the text lacks is set to nothing, because the object keeps earlier ones.
        writeFile(file_, "logLevel=\nlogTypes=\nlogStore=\nlogRotate=\n" + std::string(text));
        Config::instance().load(narrowPath(file_));
        applyLogSettings(Config::instance(), "C:\\Users\\user", settings_);
        return settings_;
    }

    TemporaryFolder folder_;
    std::filesystem::path file_ = folder_.path() / "nvksprovider.conf";
    LoggerSettings settings_;
};

TEST_F(ApplyLogSettings, AssignsAllFour)
{
    const LoggerSettings settings = apply("logLevel = debug\nlogTypes= file , console\n"
                                          "logStore=~\\logs\nlogRotate=30\n");
    EXPECT_EQ(settings.levelMask, 0x7Eu);
    EXPECT_EQ(settings.types, 3u);
    EXPECT_EQ(settings.store, "C:\\Users\\user\\logs");
    EXPECT_EQ(settings.rotate, 30);
    EXPECT_EQ(settings.fileName, "nvksprovider.log");
}

TEST_F(ApplyLogSettings, MissingKeysHaveTheirOwnDefaults)
{
    const LoggerSettings settings = apply("logRotate=x\n");
    EXPECT_EQ(settings.levelMask, 0x7Cu);
    EXPECT_EQ(settings.types, 0u);
    EXPECT_EQ(settings.store, "");
    EXPECT_EQ(settings.rotate, 7);
}

TEST_F(ApplyLogSettings, TheRotationComesLast)
{
    EXPECT_THROW(apply("logLevel=ERROR\nlogTypes=FILE\nlogStore=D:\\l\n"), std::invalid_argument);
    EXPECT_EQ(settings_.levelMask, 0x60u);
    EXPECT_EQ(settings_.types, 2u);
    EXPECT_EQ(settings_.store, "D:\\l");
    EXPECT_EQ(settings_.rotate, 7);
}

}  // namespace

}  // namespace NV::test
