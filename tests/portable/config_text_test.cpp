// The modern reading of a configuration file.

#include "config/config_text.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace NV {

namespace {

using namespace std::string_view_literals;

struct LineCase {
    const char* name;
    std::string_view line;
    ConfigLine::Kind kind;
    const char* key = "";
    std::string_view value = {};
};

void PrintTo(const LineCase& row, std::ostream* out)
{
    *out << row.name;
}

constexpr auto nothing = ConfigLine::Kind::nothing;
constexpr auto setting = ConfigLine::Kind::setting;
constexpr auto unreadable = ConfigLine::Kind::unreadable;

const LineCase lineCases[] = {
    {"Plain", "logLevel=INFO", setting, "logLevel", "INFO"},
    {"BlanksAndTabsAtBothEnds", "\t logLevel \t=\t  IN FO \t", setting, "logLevel", "IN FO"},
    {"OneCarriageReturn", "logLevel=INFO\r", setting, "logLevel", "INFO"},
    {"BlanksBeforeTheCarriageReturn", "logLevel=INFO \t\r", setting, "logLevel", "INFO"},
    {"ASecondCarriageReturnIsPartOfTheValue", "logLevel=INFO\r\r", setting, "logLevel", "INFO\r"},
    {"ACarriageReturnInside", "log\rLevel=IN\rFO", setting, "log\rLevel", "IN\rFO"},
    {"FurtherEqualSigns", "key=a=b=", setting, "key", "a=b="},
    {"NoValue", "key=", setting, "key", ""},
    {"NoValueButBlanks", "key= \t", setting, "key", ""},
    {"ANumberSignLater", "p11File=C:\\lib.dll # card", setting, "p11File", "C:\\lib.dll # card"},
    {"QuotesAreOfThePath", "p11File=\"C:\\a b.dll\"", setting, "p11File", "\"C:\\a b.dll\""},
    {"BytesOutsideAscii", "p11File=C:\\\xC3\xB6.dll", setting, "p11File", "C:\\\xC3\xB6.dll"},
    {"Empty", "", nothing},
    {"BlanksAndTabs", " \t ", nothing},
    {"CarriageReturnAlone", "\r", nothing},
    {"BlanksAndCarriageReturn", " \t\r", nothing},
    {"Comment", "# logLevel=INFO", nothing},
    {"CommentBehindBlanks", " \t# logLevel=INFO\r", nothing},
    {"NoEqualSign", "logLevel", unreadable},
    {"NoKey", "=INFO", unreadable},
    {"NoKeyButBlanks", " \t =INFO", unreadable},
    {"EqualSignAlone", "=", unreadable},
    {"ZeroByteInTheKey", "log\0Level=INFO"sv, unreadable},
    {"ZeroByteInTheValue", "logLevel=IN\0FO"sv, unreadable},
    {"AFormFeedIsNoBlank", "\flogLevel=INFO", setting, "\flogLevel", "INFO"},
};

class ConfigLineRow : public testing::TestWithParam<LineCase> {};

TEST_P(ConfigLineRow, IsReadAs)
{
    const ConfigLine line = readConfigLine(GetParam().line);
    EXPECT_EQ(GetParam().kind, line.kind);
    EXPECT_EQ(GetParam().key, line.key);
    EXPECT_EQ(GetParam().value, line.value);
}

INSTANTIATE_TEST_SUITE_P(Lines, ConfigLineRow, testing::ValuesIn(lineCases),
                         [](const auto& row) { return std::string(row.param.name); });

// Files that are modern, and files that are not.

bool isModern(std::string_view text)
{
    return readConfigText(text).modern;
}

TEST(ConfigTextMode, IsModernWhereverTheLineStands)
{
    for (const std::string_view text :
         {"mode=modern"sv, "mode=modern\n"sv, "mode=modern\r\n"sv, "mode=modern\r"sv,
          "\xEF\xBB\xBFmode=modern\n"sv, " mode\t=\tmodern \r\n"sv,
          "a=1\nnonsense\n\nmode=modern"sv, "# first\r\nmode=modern\r\na=1"sv,
          "\0\0\0\nmode=modern\n\xFF\xFF"sv, "\nmode=modern\nmode=modern\n"sv})
        EXPECT_TRUE(isModern(text)) << text;
}

TEST(ConfigTextMode, IsExact)
{
    for (const std::string_view text : {""sv,
                                        "mode=\n"sv,
                                        "mode=Modern\n"sv,
                                        "mode=MODERN\n"sv,
                                        "Mode=modern\n"sv,
                                        "mode=modern2\n"sv,
                                        "mode=modern # new\n"sv,
                                        "mode=\"modern\"\n"sv,
                                        "#mode=modern\n"sv,
                                        "mode modern\n"sv,
                                        "mode==modern\n"sv,
                                        "mode=classic\n"sv,
                                        "mode=modern,classic\n"sv,
                                        "mode=modern\r\r\n"sv,
                                        "mode=mod\nern\n"sv,
                                        "a=1 mode=modern\n"sv,
                                        "a=1\n\xEF\xBB\xBFmode=modern\n"sv,
                                        "\xEF\xBB\xBF\xEF\xBB\xBFmode=modern\n"sv,
                                        "mode=modern\0\n"sv,
                                        "\xFF\xFEm\0o\0d\0e\0=\0m\0o\0d\0e\0r\0n\0"sv})
        EXPECT_FALSE(isModern(text)) << text;
}

TEST(ConfigTextMode, AnotherValueBesideItChangesNothing)
{
    for (const std::string_view text :
         {"mode=modern\nmode=classic\n"sv, "mode=odd\nmode=modern\nmode=\n"sv}) {
        const ConfigText read = readConfigText(text);
        EXPECT_TRUE(read.modern);
        EXPECT_EQ("modern", read.settings.at("mode"));
    }
}

// Whole files.

TEST(ConfigTextFile, HasTheSettingsOfAllItsLines)
{
    const Settings expected{{"logLevel", "TRACE"}, {"logTypes", "FILE"}, {"empty", ""}};
    for (const std::string_view text :
         {"logLevel=INFO\nlogTypes=FILE\nlogLevel=TRACE\nempty=\n"sv,
          "\xEF\xBB\xBFlogLevel=INFO\r\nlogTypes=FILE\r\n\r\n# end\r\nlogLevel=TRACE\r\nempty="sv,
          "logLevel=INFO\r\nlogTypes = FILE\nlogLevel\t=TRACE\n \t\nempty="sv}) {
        EXPECT_EQ(expected, readConfigText(text).settings) << text;
        EXPECT_EQ(0U, readConfigText(text).unreadableCount) << text;
    }
}

TEST(ConfigTextFile, CountsTheLinesThatCannotBeReadAndGoesOn)
{
    const ConfigText read = readConfigText("nonsense\n\n# a\nlogLevel=INFO\r\n=x\nend");
    EXPECT_EQ((Settings{{"logLevel", "INFO"}}), read.settings);
    ASSERT_EQ(3U, read.unreadable.size());
    EXPECT_EQ(3U, read.unreadableCount);
    EXPECT_EQ(1U, read.unreadable[0].number);
    EXPECT_EQ("nonsense", read.unreadable[0].text);
    EXPECT_EQ(5U, read.unreadable[1].number);
    EXPECT_EQ("=x", read.unreadable[1].text);
    EXPECT_EQ(6U, read.unreadable[2].number);
}

TEST(ConfigTextFile, KeepsAFewOfThem)
{
    for (const size_t count :
         {ConfigText::mostKept - 1, ConfigText::mostKept, ConfigText::mostKept + 1, size_t{1000}}) {
        std::string text;
        for (size_t i = 0; i < count; ++i)
            text += "nonsense\n";
        const ConfigText read = readConfigText(text + "a=1");
        EXPECT_EQ(count, read.unreadableCount);
        EXPECT_EQ(std::min(count, ConfigText::mostKept), read.unreadable.size());
        EXPECT_EQ("1", read.settings.at("a"));
    }
}

TEST(ConfigTextFile, CutsThem)
{
    for (const size_t size : {ConfigText::mostOfLine - 1, ConfigText::mostOfLine,
                              ConfigText::mostOfLine + 1, size_t{10} << 20})
        EXPECT_EQ(std::min(size, ConfigText::mostOfLine),
                  readConfigText(std::string(size, 'x')).unreadable.at(0).text.size());
}

// 10 MB each.

TEST(ConfigTextFile, MayBeOneLineWithoutEnd)
{
    const std::string value(size_t{10} << 20, 'x');
    EXPECT_EQ(value, readConfigText("mode=modern\np11File=" + value).settings.at("p11File"));
}

TEST(ConfigTextFile, MayBeBinary)
{
    std::string text(size_t{10} << 20, '\0');
    uint32_t state = 1;
    for (char& c : text) {
        state = state * 1664525 + 1013904223;
        c = static_cast<char>(state >> 24);
    }
    EXPECT_FALSE(isModern(text));
    EXPECT_TRUE(isModern(text + "\nmode=modern\n"));
}

TEST(ConfigTextFile, MayHaveManyLines)
{
    std::string text;
    while (text.size() < size_t{10} << 20)
        text += "key=value\r\n\n";
    EXPECT_EQ((Settings{{"key", "value"}}), readConfigText(text).settings);
}

}  // namespace

}  // namespace NV
