// What is escaped before it is printed, and what stays.

#include <gtest/gtest.h>

#include <string>

#include <nlohmann/json.hpp>

#include "printable.h"

namespace NV::test {

using tool::printable;
using tool::printableJson;

TEST(Printable, LeavesTextAsItIs)
{
    for (const char* text : {"", "KeyWarden rsa2048", "Größe", "部門 鍵", "\U0001F511", "a\\x1B"})
        EXPECT_EQ(printable(text), text);
}

TEST(Printable, EscapesControlCharacters)
{
    EXPECT_EQ(printable("a\x1b[31mb"), "a\\x1B[31mb");
    EXPECT_EQ(printable(std::string("\0\t\r\n\x1f\x7f", 6)), "\\x00\\x09\\x0D\\x0A\\x1F\\x7F");
    // C1 as UTF-8: NEL and CSI, the first and the last one.
    EXPECT_EQ(printable("\u0085\u009b\u0080\u009f"), "\\x85\\x9B\\x80\\x9F");
    EXPECT_EQ(printable("\u00a0"), "\u00a0");
}

TEST(Printable, EscapesWhatChangesTheOrderOfText)
{
    // NOLINTNEXTLINE(misc-misleading-bidirectional): what is escaped
    EXPECT_EQ(printable("exe.\u202efdp"), "exe.\\u202Efdp");
    // NOLINTNEXTLINE(misc-misleading-bidirectional): what is escaped
    EXPECT_EQ(printable("\u200e\u200f\u061c\u202a\u2066\u2069\u2028"),
              "\\u200E\\u200F\\u061C\\u202A\\u2066\\u2069\\u2028");
    EXPECT_EQ(printable("\u2027\u202f\u2065\u206a"), "\u2027\u202f\u2065\u206a");
}

TEST(Printable, EscapesBytesThatAreNotUtf8)
{
    EXPECT_EQ(printable("gr\xf6\xdf"), "gr\\xF6\\xDF");
    EXPECT_EQ(printable("\xc3"), "\\xC3");                    // ends early
    EXPECT_EQ(printable("\xc0\x9b"), "\\xC0\\x9B");           // an overlong escape
    EXPECT_EQ(printable("\xe0\x82\x9b"), "\\xE0\\x82\\x9B");  // an overlong CSI
    EXPECT_EQ(printable("\xed\xa0\x80"), "\\xED\\xA0\\x80");  // a surrogate
    EXPECT_EQ(printable("\x9b[2J"), "\\x9B[2J");              // CSI of Latin-1
}

TEST(Printable, JsonStaysTheSameDocument)
{
    // NOLINTNEXTLINE(misc-misleading-bidirectional): what is escaped
    const nlohmann::json document = {{"text", "a\x1b\u009b\u202e\x7f\nGröße\n"}};
    const std::string text = printableJson(document.dump(2));
    // NOLINTNEXTLINE(misc-misleading-bidirectional): what is escaped
    for (const char* part : {"\x1b", "\u009b", "\u202e", "\x7f"})
        EXPECT_EQ(text.find(part), std::string::npos) << text;
    EXPECT_NE(text.find("Größe"), std::string::npos);
    EXPECT_NE(text.find("\n  "), std::string::npos);
    EXPECT_EQ(nlohmann::json::parse(text), document);
}

}  // namespace NV::test
