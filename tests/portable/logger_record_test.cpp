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

TEST(FormatMessage, ANullPointerForATextIsShown)
{
    const char* volatile narrow = nullptr;  // volatile: the compiler would warn of a null it sees
    EXPECT_EQ("(null)", format("%s", narrow));
}

TEST(FormatMessage, TakesAMessageThatJustFits)
{
    const std::string text(bufferSize - 1, 'x');
    EXPECT_EQ(text, format("%s", text.c_str()));
}

TEST(FormatMessage, AMessageThatIsTooLongBecomesEmpty)
{
    const std::string text(bufferSize, 'x');
    EXPECT_EQ("", format("%s", text.c_str()));
    EXPECT_EQ("", format("%s%s", "x", text.c_str() + 1));
}

TEST(FormatMessage, NeverWritesPastTheBuffer)
{
    std::vector<char> buffer(9, '\x7F');
    const auto call = [&](const char* format, ...) NV_PRINTF(2, 3) {
        va_list arguments;  // NOLINT(cppcoreguidelines-init-variables): va_start does it
        va_start(arguments, format);
        const size_t length = formatMessage(buffer.data(), 8, format, arguments);
        va_end(arguments);
        return length;
    };
    EXPECT_EQ(7U, call("%s", "1234567"));
    EXPECT_EQ('\0', buffer[7]);
    EXPECT_EQ(0U, call("%s", "12345678"));
    EXPECT_EQ('\0', buffer[0]);
    EXPECT_EQ('\x7F', buffer[8]);
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
