// Conversions of texts, and the texts of statuses and errors.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "text.h"

namespace NV::test {

namespace {

using tool::errorText;
using tool::hexText;
using tool::isAscii;
using tool::joined;
using tool::toPath;
using tool::toUtf8;

struct Pair {
    const wchar_t* utf16;
    const char* utf8;
};

constexpr Pair pairs[] = {
    {L"", ""},
    {L"plain", "plain"},
    {L"gr\u00f6\u00dfe", "gr\xC3\xB6\xC3\x9F"
                         "e"},
    {L"\u90e8", "\xE9\x83\xA8"},
    {L"\xD83D\xDD11", "\xF0\x9F\x94\x91"},
};

TEST(Text, ConvertsBothWays)
{
    for (const Pair& pair : pairs) {
        EXPECT_EQ(toUtf8(pair.utf16), pair.utf8);
        EXPECT_EQ(toUtf8(std::wstring(pair.utf16)), pair.utf8);
        EXPECT_EQ(toUtf8(std::filesystem::path(pair.utf16)), pair.utf8);
        EXPECT_EQ(fromUtf8(pair.utf8), pair.utf16);
        EXPECT_EQ(toPath(pair.utf8), std::filesystem::path(pair.utf16));
    }
}

TEST(Text, KeepsZeroCharacters)
{
    EXPECT_EQ(toUtf8(std::wstring_view(L"a\0b", 3)), std::string("a\0b", 3));
    EXPECT_EQ(fromUtf8(std::string_view("a\0b", 3)), std::wstring(L"a\0b", 3));
}

TEST(Text, ReplacesInvalidCharacters)
{
    EXPECT_EQ(toUtf8(L"a\xD83D"), "a\xEF\xBF\xBD");
    EXPECT_EQ(fromUtf8("a\xFF"), L"a\uFFFD");
}

TEST(Text, IsAsciiBelow80)
{
    EXPECT_TRUE(isAscii(""));
    EXPECT_TRUE(isAscii("\x01 ~\x7F"));
    EXPECT_FALSE(isAscii("gr\xC3\xB6"));
    EXPECT_FALSE(isAscii("\x80"));
}

TEST(Text, JoinsTexts)
{
    EXPECT_EQ(joined({}), "");
    EXPECT_EQ(joined({"one"}), "one");
    EXPECT_EQ(joined({"one", "two", "three"}), "one, two, three");
}

TEST(Text, WritesStatusesAsNumbers)
{
    EXPECT_EQ(hexText(NTE_INTERNAL_ERROR), "0x8009002d");
}

TEST(Text, DescribesErrors)
{
    const std::string known = errorText(ERROR_ACCESS_DENIED);
    EXPECT_TRUE(known.ends_with(" (5)")) << known;
    EXPECT_GT(known.size(), std::string("error (5)").size()) << known;
    EXPECT_EQ(known.find_first_of(".\r\n"), std::string::npos) << known;
    EXPECT_EQ(errorText(0x2FFFFFFF), "error (805306367)");
}

}  // namespace

}  // namespace NV::test
