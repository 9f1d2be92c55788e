// The text of log records: messages, thread hash, identity, lines, banner.

#include "logger/logger_record.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdarg>
#include <limits>
#include <vector>

#include "local_time.h"

namespace NV {

using namespace std::chrono_literals;

namespace {

constexpr size_t bufferSize = 65536;

std::string format(const char* text, ...) NV_PRINTF(1, 2);

// The message as a level function makes it.
std::string format(const char* text, ...)
{
    std::vector<char> buffer(bufferSize, '\x7F');
    va_list arguments;  // NOLINT(cppcoreguidelines-init-variables): va_start does it
    va_start(arguments, text);
    const size_t length = formatMessage(buffer.data(), buffer.size(), text, arguments);
    va_end(arguments);
    EXPECT_EQ('\0', buffer.at(length));
    return {buffer.data(), length};
}

LocalTime someTime()
{
    return toLocalTime(test::localTime(2026, 3, 4, 17, 5, 9, 42));
}

TEST(FormatMessage, FormatsLikePrintf)
{
    EXPECT_EQ("STATUS=0x80090027, ELAPSED:0.012(ms)",
              format("STATUS=0x%x, ELAPSED:%.3f(ms)", 0x80090027U, 0.012));
    EXPECT_EQ("abc def 42 -7 0x2a 100%",
              format("%.3s %s %d %d 0x%x 100%%", "abcxyz", "def", 42, -7, 42U));
    EXPECT_EQ("0000beef 12345678901 z", format("%08x %lld %c", 0xBEEFU, 12345678901LL, 'z'));
    EXPECT_EQ("", format("%s", ""));
}

TEST(FormatMessage, WideTextBecomesUtf8)
{
    EXPECT_EQ("plain", format("%ls", L"plain"));
    EXPECT_EQ("caf\xC3\xA9", format("%ls", L"caf\u00E9"));
    EXPECT_EQ("\xE2\x82\xAC 5", format("%ls", L"\u20AC 5"));
    EXPECT_EQ("", format("%ls", L""));
}

TEST(FormatMessage, WideTextBecomesUtf8AtTheBordersOfItsLengths)
{
    EXPECT_EQ("\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBD",
              format("%ls", L"\x7F\u0080\u07FF\u0800\uFFFD"));
}

TEST(FormatMessage, SurrogatePairsBecomeOneCharacter)
{
    const wchar_t key[] = {0xD83D, 0xDD11, 0};  // U+1F511
    EXPECT_EQ("<\xF0\x9F\x94\x91>", format("<%ls>", key));
    const wchar_t first[] = {0xD800, 0xDC00, 0};  // U+10000: every bit of the continuations is 0
    EXPECT_EQ("\xF0\x90\x80\x80", format("%ls", first));
    const wchar_t last[] = {0xDBFF, 0xDFFF, 0};  // U+10FFFF: every bit of them is 1
    EXPECT_EQ("\xF4\x8F\xBF\xBF", format("%ls", last));
}

TEST(FormatMessage, LoneSurrogatesBecomeTheReplacementCharacter)
{
    const wchar_t high[] = {0xD83D, L'a', 0};
    EXPECT_EQ("\xEF\xBF\xBD"
              "a",
              format("%ls", high));
    const wchar_t low[] = {0xDD11, 0};
    EXPECT_EQ("\xEF\xBF\xBD", format("%ls", low));
    const wchar_t atEnd[] = {L'a', 0xD83D, 0};
    EXPECT_EQ("a\xEF\xBF\xBD", format("%ls", atEnd));
}

TEST(FormatMessage, NullPointersForTextsAreShown)
{
    const wchar_t* wide = nullptr;
    EXPECT_EQ("(null)", format("%ls", wide));
    const char* volatile narrow = nullptr;  // volatile: the compiler would warn of a null it sees
    EXPECT_EQ("(null)", format("%s", narrow));
    EXPECT_EQ("(null) x", format("%s %ls", narrow, L"x"));
}

TEST(FormatMessage, OtherConversionsKeepTheirMeaningBesideWideText)
{
    EXPECT_EQ("ab[f.cpp:87]:ARG[1]:pszName=n\xC3\xBA, -5, 0x00ff, 7, 123456789012, c, 1.500, 50%",
              format("%.*s[%s:%d]:ARG[%d]:pszName=%ls, %ld, 0x%04x, %u, %lld, %c, %.3f, 50%%", 2,
                     "abc", "f.cpp", 87, 1, L"n\u00FA", -5L, 0xFFU, 7U, 123456789012LL, 'c', 1.5));
    EXPECT_EQ("a b c", format("%ls %ls %s", L"a", L"b", "c"));
}

TEST(FormatMessage, PointersPrintTheSameWithAndWithoutWideText)
{
    int object = 0;
    const void* pointer = &object;
    EXPECT_EQ(format("%p", pointer) + "|w", format("%p|%ls", pointer, L"w"));
}

TEST(FormatMessage, TakesAMessageThatJustFits)
{
    const std::string text(bufferSize - 1, 'x');
    EXPECT_EQ(text, format("%s", text.c_str()));
    EXPECT_EQ(text, format("%s%ls", text.c_str() + 1, L"x"));
}

TEST(FormatMessage, AMessageThatIsTooLongBecomesEmpty)
{
    const std::string text(bufferSize, 'x');
    EXPECT_EQ("", format("%s", text.c_str()));
    EXPECT_EQ("", format("%s%ls", text.c_str() + 1, L"x"));
    EXPECT_EQ("", format("%ls%s", L"x", text.c_str() + 1));
    EXPECT_EQ("", format("%ls", std::wstring(bufferSize, L'x').c_str()));
}

TEST(FormatMessage, TheLengthOfWideTextCountsInBytes)
{
    // Three bytes each: 21,845 of them are 65,535 bytes.
    EXPECT_EQ(bufferSize - 1, format("%ls", std::wstring(21845, L'\u20AC').c_str()).size());
    EXPECT_EQ("", format("%ls", std::wstring(21846, L'\u20AC').c_str()));
}

TEST(FormatMessage, NeverWritesPastTheBuffer)
{
    for (const char* text : {"%s", "%s%ls"}) {
        std::vector<char> buffer(9, '\x7F');
        const auto call = [&](const char* format, ...) {
            va_list arguments;  // NOLINT(cppcoreguidelines-init-variables): va_start does it
            va_start(arguments, format);
            const size_t length = formatMessage(buffer.data(), 8, format, arguments);
            va_end(arguments);
            return length;
        };
        EXPECT_EQ(7U, call(text, "1234567", L""));
        EXPECT_EQ('\0', buffer[7]);
        EXPECT_EQ(0U, call(text, "12345678", L""));
        EXPECT_EQ('\0', buffer[0]);
        EXPECT_EQ('\x7F', buffer[8]);
    }
}

// For thread 0 every step is a multiplication of 0xcbf29ce484222325 by 0x100000001b3 modulo 2^64,
// four in a row: 0xaf63bd4c8601b7df, 0x08328807b4eb6fed, 0xd94d12186c0f2fb7, 0x4d25767f9dce13f5.
TEST(ThreadHash, OfThreadZeroIsTheLowHalfOfTheHashOfFourZeroBytes)
{
    EXPECT_EQ(0x9dce13f5U, threadHash(0));
}

// The bytes 01 00 00 00: 0xad2aca7747985764. Taken in the other order they would give another hash.
TEST(ThreadHash, TakesTheLowestByteFirst)
{
    EXPECT_EQ(0x47985764U, threadHash(1));
    EXPECT_EQ(0x3644edb5U, threadHash(0x01020304));  // 04 03 02 01: 0xb345225e3644edb5
    EXPECT_EQ(0x264b45fbU, threadHash(0x1234));      // 34 12 00 00: 0x46d4bfd9264b45fb
    EXPECT_EQ(0x3e2a3951U, threadHash(0xFFFFFFFF));  // 0x994f76653e2a3951
}

TEST(Identity, ShowsTheProcessInFiveDigitsAndTheThreadHashInEight)
{
    EXPECT_EQ("[04312,9dce13f5]", identity(4312, 0));
    EXPECT_EQ("[00000,47985764]", identity(0, 1));
    EXPECT_EQ("[123456,264b45fb]", identity(123456, 0x1234));
}

TEST(Identity, KeepsTheZerosInFrontOfTheHash)
{
    uint32_t thread = 0;
    while (threadHash(thread) > 0x00FFFFFF)
        ++thread;
    const std::string text = identity(1, thread);
    EXPECT_EQ("[00001,00", text.substr(0, 9));
    EXPECT_EQ(16U, text.size());
}

TEST(RecordLine, HasTimeTagIdentityAndMessage)
{
    EXPECT_EQ("2026-03-04 17:05:09.042 TRC [04312,1a2b3c4d] NVKSPOpenKey[dll.cpp:139]:ENTER\n",
              recordLine(someTime(), "TRC", "[04312,1a2b3c4d]", "NVKSPOpenKey[dll.cpp:139]:ENTER"));
}

TEST(RecordLine, PadsEveryPartOfTheTime)
{
    const LocalTime time = toLocalTime(test::localTime(2026, 1, 2, 3, 4, 5, 6));
    EXPECT_EQ("2026-01-02 03:04:05.006 INF [i] m\n", recordLine(time, "INF", "[i]", "m"));
    const LocalTime end = toLocalTime(test::localTime(2026, 12, 31, 23, 59, 59, 999));
    EXPECT_EQ("2026-12-31 23:59:59.999 INF [i] m\n", recordLine(end, "INF", "[i]", "m"));
    const LocalTime whole = toLocalTime(test::localTime(2026, 1, 1, 0, 0, 0, 0));
    EXPECT_EQ("2026-01-01 00:00:00.000 INF [i] m\n", recordLine(whole, "INF", "[i]", "m"));
}

TEST(RecordLine, CutsMillisecondsOffInsteadOfRoundingThem)
{
    const auto instant = test::localTime(2026, 3, 4, 17, 5, 9, 42) + std::chrono::microseconds(999);
    EXPECT_EQ("2026-03-04 17:05:09.042 INF [i] m\n",
              recordLine(toLocalTime(instant), "INF", "[i]", "m"));
}

#if defined(_WIN32)
// There the C library knows no time before 1970, and fills the calendar with numbers of its own.
TEST(LocalTime, IsEmptyWhereTheSystemKnowsNoCalendar)
{
    const LocalTime time = toLocalTime(std::chrono::system_clock::time_point(-24h * 365));
    EXPECT_EQ(0, time.calendar.tm_year);
    EXPECT_EQ(0, time.calendar.tm_mday);
    EXPECT_EQ(0, time.milliseconds);
}
#endif

TEST(RecordLine, LosesEveryLineFeedOfTheMessage)
{
    EXPECT_EQ("2026-03-04 17:05:09.042 ERR [i] onetwothree\n",
              recordLine(someTime(), "ERR", "[i]", "\none\n\ntwo\nthree\n"));
}

TEST(RecordLine, KeepsCarriageReturnsAndTabs)
{
    EXPECT_EQ("2026-03-04 17:05:09.042 ERR [i] a\r\tb\n",
              recordLine(someTime(), "ERR", "[i]", "a\r\n\tb"));
}

TEST(RecordLine, AnEmptyMessageLeavesTheBlankBehindTheIdentity)
{
    EXPECT_EQ("2026-03-04 17:05:09.042 SEV [i] \n", recordLine(someTime(), "SEV", "[i]", ""));
}

TEST(Banner, HasSevenLines)
{
    LoggerSettings settings;
    settings.levelMask = 0x7C;
    settings.types = 0x03;
    settings.store = "C:\\logs";
    settings.rotate = 30;
    EXPECT_EQ("2026-03-04 17:05:09.042 INF [i] "
              "============================================================================\n"
              "2026-03-04 17:05:09.042 INF [i] LOGGER():STARTED\n"
              "2026-03-04 17:05:09.042 INF [i] LOGGER():LogLevel = 0x7c\n"
              "2026-03-04 17:05:09.042 INF [i] LOGGER():LogTypes = 0x03\n"
              "2026-03-04 17:05:09.042 INF [i] LOGGER():LogStore = C:\\logs\n"
              "2026-03-04 17:05:09.042 INF [i] LOGGER():LogRotate = 30\n"
              "2026-03-04 17:05:09.042 INF [i] "
              "============================================================================\n",
              bannerLines(someTime(), "[i]", settings));
}

TEST(Banner, ShowsEmptyAndExtremeSettingsAsTheyAre)
{
    LoggerSettings settings;
    settings.levelMask = 0;
    settings.types = 0x01;
    settings.store = "";
    settings.rotate = std::numeric_limits<int32_t>::max();
    const std::string text = bannerLines(someTime(), "[i]", settings);
    EXPECT_NE(std::string::npos, text.find("LOGGER():LogLevel = 0x00\n"));
    EXPECT_NE(std::string::npos, text.find("LOGGER():LogTypes = 0x01\n"));
    EXPECT_NE(std::string::npos, text.find("LOGGER():LogStore = \n"));
    EXPECT_NE(std::string::npos, text.find("LOGGER():LogRotate = 2147483647\n"));
}

TEST(LoggerSettings, BeginWithAllLevelsToAFileKeptSevenDays)
{
    const LoggerSettings settings;
    EXPECT_EQ(0x7FU, settings.levelMask);
    EXPECT_EQ(2U, settings.types);
    EXPECT_EQ("~/.norvanta-keywarden/logs", settings.store);
    EXPECT_EQ(7, settings.rotate);
    EXPECT_EQ("nvksprovider.log", settings.fileName);
}

TEST(LevelMasks, EachHoldsTheMoreSevereOnes)
{
    EXPECT_EQ(0x7FU, logMaskTrace);
    EXPECT_EQ(0x7EU, logMaskDebug);
    EXPECT_EQ(0x7CU, logMaskInfo);
    EXPECT_EQ(0x70U, logMaskWarn);
    EXPECT_EQ(0x60U, logMaskError);
    EXPECT_EQ(0x40U, logMaskSevere);
}

}  // namespace

}  // namespace NV
