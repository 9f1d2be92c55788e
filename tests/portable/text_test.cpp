// Conversion between text encodings.

#include "base/text.h"

#include <gtest/gtest.h>

namespace NV {

namespace {

TEST(ToUtf8, KeepsAscii)
{
    EXPECT_EQ("plain", toUtf8(L"plain"));
    EXPECT_EQ("", toUtf8(L""));
}

TEST(ToUtf8, EncodesAtTheBordersOfTheEncodedLengths)
{
    EXPECT_EQ("\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBD",
              toUtf8(L"\x7F\u0080\u07FF\u0800\uFFFD"));
}

TEST(ToUtf8, MakesOneCharacterOfASurrogatePair)
{
    const wchar_t key[] = {L'<', 0xD83D, 0xDD11, L'>', 0};  // U+1F511
    EXPECT_EQ("<\xF0\x9F\x94\x91>", toUtf8(key));
    const wchar_t first[] = {0xD800, 0xDC00, 0};  // U+10000: every bit of the continuations is 0
    EXPECT_EQ("\xF0\x90\x80\x80", toUtf8(first));
    const wchar_t last[] = {0xDBFF, 0xDFFF, 0};  // U+10FFFF: every bit of them is 1
    EXPECT_EQ("\xF4\x8F\xBF\xBF", toUtf8(last));
}

TEST(ToUtf8, ReplacesASurrogateWithoutItsPartner)
{
    const wchar_t high[] = {0xD83D, L'a', 0};
    EXPECT_EQ("\xEF\xBF\xBD"
              "a",
              toUtf8(high));
    const wchar_t low[] = {0xDD11, 0};
    EXPECT_EQ("\xEF\xBF\xBD", toUtf8(low));
    const wchar_t atEnd[] = {L'a', 0xD83D, 0};
    EXPECT_EQ("a\xEF\xBF\xBD", toUtf8(atEnd));
}

TEST(WidenBytes, MakesACharacterOfEachByte)
{
    EXPECT_EQ(L"", widenBytes(""));
    EXPECT_EQ(L"a\u0080\u00FF", widenBytes("a\x80\xFF"));
}

TEST(Printable, ShowsANullPointer)
{
    const wchar_t* none = nullptr;
    EXPECT_EQ("(null)", printable(none));
    EXPECT_EQ("caf\xC3\xA9", printable(L"caf\u00E9"));
}

}  // namespace

}  // namespace NV
