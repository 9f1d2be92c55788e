// Which messages have which form.

#include "formats/log_pattern.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "formats/known_lines.h"

namespace NV::test {

namespace {

// "d:5 s:odd " for a number and a text; "none" if the message has not that form.
std::string valuesOf(std::string_view form, std::string_view message)
{
    std::vector<tool::LogValue> values;
    if (!tool::hasForm(form, message, values))
        return "none";
    std::string text;
    for (const tool::LogValue& value : values)
        text += std::string(1, value.kind) + ":" + std::string(value.text) + " ";
    return text;
}

TEST(LogPattern, FitsTheWholeMessage)
{
    EXPECT_EQ(valuesOf("ENTER", "ENTER"), "");
    EXPECT_EQ(valuesOf("ENTER", "ENTER "), "none");
    EXPECT_EQ(valuesOf("ENTER", "ENTE"), "none");
    EXPECT_EQ(valuesOf("", ""), "");
}

TEST(LogPattern, HasAKindOfValueForEachLetter)
{
    EXPECT_EQ(valuesOf("n=%d.", "n=-12."), "d:-12 ");
    EXPECT_EQ(valuesOf("n=%d.", "n=1A."), "none");
    EXPECT_EQ(valuesOf("n=%d.", "n=."), "none");
    EXPECT_EQ(valuesOf("%d", std::string(21, '1')), "none");
    EXPECT_EQ(valuesOf("0x%x", "0x80090027"), "x:80090027 ");
    EXPECT_EQ(valuesOf("%x", "00006FFFFFFF1234"), "x:00006FFFFFFF1234 ");
    EXPECT_EQ(valuesOf("%x", "00006FFFFFFF12345"), "none");
    EXPECT_EQ(valuesOf("[%f msec]", "[1.207 msec]"), "f:1.207 ");
    EXPECT_EQ(valuesOf("%f", "1."), "none");
    EXPECT_EQ(valuesOf("%f", "1"), "none");
    EXPECT_EQ(valuesOf("CALL %w()", "CALL C_Sign()"), "w:C_Sign ");
    EXPECT_EQ(valuesOf("CALL %w()", "CALL C Sign()"), "none");
    EXPECT_EQ(valuesOf("%w", std::string(65, 'a')), "none");
    EXPECT_EQ(valuesOf("(%r)", "(000000a0(CKR_PIN_INCORRECT))"), "r:000000a0(CKR_PIN_INCORRECT) ");
    EXPECT_EQ(valuesOf("(%r)", "(UNKNOWN)"), "r:UNKNOWN ");
    for (const char* message :
         {"(000000a0)", "(00a0(CKR_OK))", "(000000a0(1234))", "(000000a0(CKR_OK)"})
        EXPECT_EQ(valuesOf("(%r)", message), "none") << message;
}

TEST(LogPattern, FindsTextsOfAnyLength)
{
    EXPECT_EQ(valuesOf("[%s]", "[]"), "s: ");
    EXPECT_EQ(valuesOf("[%s] %d", "[a] 1] 2"), "s:a] 1 d:2 ");
    EXPECT_EQ(valuesOf("A=%s, B=%s", "A=1, 2, B="), "s:1, 2 s: ");
    EXPECT_EQ(valuesOf("%!(%d bytes)", "x(1 bytes)(2 bytes)"), "!:x(1 bytes) d:2 ");
    EXPECT_EQ(valuesOf("%s%d", "12"), "s: d:12 ");
    EXPECT_EQ(valuesOf("=[%s]", "=[1"), "none");
}

TEST(LogPattern, WordsAreWhole)
{
    EXPECT_TRUE(tool::hasWord("hKey dwFlags", "hKey"));
    EXPECT_TRUE(tool::hasWord("hKey dwFlags", "dwFlags"));
    for (const char* word : {"hKe", "Key", "", "hKey dwFlags"})
        EXPECT_FALSE(tool::hasWord("hKey dwFlags", word)) << word;
    EXPECT_FALSE(tool::hasWord("", "hKey"));
}

}  // namespace

}  // namespace NV::test
