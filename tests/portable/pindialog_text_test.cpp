// Names on one line of the PIN dialog, and its messages about lengths.

#include "pindialog/pindialog_text.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

namespace NV {
namespace {

// A text of these UTF-16 units.
std::wstring units(std::initializer_list<int> values)
{
    std::wstring text;
    for (const int value : values)
        text += static_cast<wchar_t>(value);
    return text;
}

const std::wstring face = units({0xD83D, 0xDE00});

TEST(DisplayName, leavesOrdinaryNamesAlone)
{
    for (const std::wstring name :
         {L"Work card", L"J\u00FCrgen M\u00FCller & Co.", L"\u5C71\u7530\u592A\u90CE",
          L"\u0628\u0637\u0627\u0642\u0629 12", L"\u05DB\u05E8\u05D8\u05D9\u05E1 (A)",
          L"a\u0308\u200D", L"C:\\odd\"<name>%s"})
        EXPECT_EQ(displayName(name), name);
}

TEST(DisplayName, isEmptyForANameThatShowsNothing)
{
    for (const std::wstring name :
         {L"", L"   ", L"\r\n\t", L"\u00A0\u3000\u2003", L"\u202E\u2066\u200B", L"\u200E \uFEFF"})
        EXPECT_EQ(displayName(name), L"");
    EXPECT_EQ(displayName(std::wstring(32, L'\0')), L"");
}

TEST(DisplayName, isOneLine)
{
    EXPECT_EQ(displayName(L"Card\r\nKey: Somebody\x0B\x0C\x85\u2028\u2029else"),
              L"Card Key: Somebody else");
    EXPECT_EQ(displayName(L"\ta\x1B[2Jb\x7F"), L"a [2Jb");
}

// A run of blanks could push a text to where another line's text stands.
TEST(DisplayName, hasSingleBlanksBetweenWords)
{
    EXPECT_EQ(displayName(L"  a \u00A0\u3000 b\u2003c  "), L"a b c");
    EXPECT_EQ(displayName(L"a" + std::wstring(400, L' ') + L"b"), L"a b");
    EXPECT_EQ(displayName(L"a\u3164\u2800\u115F\uFFA0b"), L"a b");
}

TEST(DisplayName, cannotChangeTheDirection)
{
    EXPECT_EQ(displayName(L"invoice\u202Efdp.exe"), L"invoicefdp.exe");
    for (wchar_t control = 0x202A; control <= 0x202E; ++control)
        EXPECT_EQ(displayName(std::wstring(L"a") + control + L"b"), L"ab");
    for (wchar_t control = 0x2066; control <= 0x2069; ++control)
        EXPECT_EQ(displayName(std::wstring(L"a") + control + L"b"), L"ab");
    EXPECT_EQ(displayName(L"a\u061C\u200E\u200Fb"), L"ab");
}

TEST(DisplayName, keepsSurrogatePairsAndReplacesHalves)
{
    EXPECT_EQ(displayName(L"a" + face + L"b"), L"a" + face + L"b");
    EXPECT_EQ(displayName(units({'a', 0xD83D})), L"a\uFFFD");
    EXPECT_EQ(displayName(units({0xDE00, 'a'})), L"\uFFFDa");
    EXPECT_EQ(displayName(units({0xD83D, ' ', 0xDE00})), L"\uFFFD \uFFFD");
    EXPECT_EQ(displayName(units({0xD83D}) + face), L"\uFFFD" + face);
    // The first and the last of each half.
    for (const wchar_t half : units({0xD800, 0xDBFF, 0xDC00, 0xDFFF}))
        EXPECT_EQ(displayName(std::wstring({half, L'a'})), L"\uFFFDa");
    for (const std::wstring& pair : {units({0xD800, 0xDC00}), units({0xDBFF, 0xDFFF})})
        EXPECT_EQ(displayName(pair), pair);
}

// What fits is decided by the number of units, as if all had the same width.
std::wstring cut(const std::wstring& text, size_t room)
{
    return cutInMiddle(text, [room](const std::wstring& shown) {
        EXPECT_LE(shown.size(), longestMeasured);
        return shown.size() <= room;
    });
}

TEST(CutInMiddle, leavesWhatFits)
{
    EXPECT_EQ(cut(L"", 0), L"");
    EXPECT_EQ(cut(L"abcdef", 6), L"abcdef");
    EXPECT_EQ(cut(L"abcdef", 600), L"abcdef");
}

TEST(CutInMiddle, keepsBeginningAndEnd)
{
    EXPECT_EQ(cut(L"abcdef", 5), L"ab\u2026ef");
    EXPECT_EQ(cut(L"abcdef", 4), L"ab\u2026f");
    EXPECT_EQ(cut(L"abcdef", 2), L"a\u2026");
    EXPECT_EQ(cut(L"abcdef", 1), L"\u2026");
    EXPECT_EQ(cut(L"abcdef", 0), L"\u2026");
    EXPECT_EQ(cut(L"a", 0), L"\u2026");
}

TEST(CutInMiddle, fillsTheRoomOfLongNames)
{
    for (const size_t length : {500u, 511u, 512u, 513u, 100000u}) {
        const std::wstring text = L"begin" + std::wstring(length - 8, L'x') + L"end";
        const std::wstring shown = cut(text, 40);
        EXPECT_EQ(shown.size(), 40u) << length;
        EXPECT_TRUE(shown.starts_with(L"begin") && shown.ends_with(L"end")) << length;
    }
    // Even where there is room for more.
    EXPECT_LE(cut(std::wstring(100000, L'x'), 100000).size(), longestMeasured);
}

TEST(CutInMiddle, keepsCharactersWhole)
{
    std::wstring faces;
    std::wstring marked;
    std::wstring joined;
    for (int i = 0; i < 20; ++i) {
        faces += face;
        marked += L"u\u0308";
        joined += L"a\u200D";
    }
    for (size_t room = 1; room < 40; ++room) {
        const std::wstring whole = cut(faces, room);
        ASSERT_LE(whole.size(), room);
        EXPECT_GE(whole.size() + 3, room);
        EXPECT_EQ(displayName(whole), whole) << room;
        const std::wstring mark = cut(marked, room);
        EXPECT_EQ(mark.find(L"\u2026\u0308"), std::wstring::npos) << room;
        EXPECT_EQ(mark.find(L"u\u2026"), std::wstring::npos) << room;
        EXPECT_EQ(cut(joined, room), L"\u2026") << room;
    }
    // A name of nothing but marks.
    EXPECT_EQ(cut(std::wstring(500, L'\u0308'), 20), L"\u2026");
}

TEST(LengthMessage, namesTheBounds)
{
    EXPECT_EQ(tooShortMessage({4, 8}, false),
              L"The PIN is too short. A PIN of this token has 4 to 8 characters.");
    EXPECT_EQ(tooLongMessage({4, 8}, false),
              L"The PIN is too long. A PIN of this token has 4 to 8 characters.");
    EXPECT_EQ(tooLongMessage({6, 6}, false),
              L"The PIN is too long. A PIN of this token has exactly 6 characters.");
    EXPECT_EQ(tooLongMessage({1, 1}, false),
              L"The PIN is too long. A PIN of this token has exactly 1 character.");
    EXPECT_EQ(tooLongMessage({0, 8}, false),
              L"The PIN is too long. A PIN of this token has at most 8 characters.");
    EXPECT_EQ(tooShortMessage({4, 0xFFFFFFFF}, false),
              L"The PIN is too short. A PIN of this token has at least 4 characters.");
    EXPECT_EQ(tooShortMessage({4, 0xFFFFFFFE}, false),
              L"The PIN is too short. A PIN of this token has 4 to 4294967294 characters.");
}

TEST(LengthMessage, saysWhenCharactersCountMore)
{
    EXPECT_EQ(
        tooLongMessage({4, 8}, true),
        L"The PIN is too long. A PIN of this token has 4 to 8 characters. Accented letters and "
        L"characters of other scripts count as two to four.");
    EXPECT_TRUE(tooShortMessage({4, 8}, true).ends_with(L"count as two to four."));
}

}  // namespace
}  // namespace NV
