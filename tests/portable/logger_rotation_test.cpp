// Dated file names, and which of them are outdated.

#include "logger/logger_rotation.h"

#include <gtest/gtest.h>

#include <chrono>

#include "local_time.h"

namespace NV {

namespace {

std::time_t seconds(int year, int month, int day, int hour = 12, int minute = 0, int second = 0)
{
    return std::chrono::system_clock::to_time_t(
        test::localTime(year, month, day, hour, minute, second));
}

// Whether a file of this name goes on the 9th of January 2026 at noon, with 7 days kept: the files
// up to the 1st go.
bool outdated(std::wstring_view name, int32_t daysKept = 7)
{
    return isOutdated(name, splitFileName(L"nvksprovider.log"), seconds(2026, 1, 9), daysKept);
}

TEST(SplitFileName, CutsAtTheLastDot)
{
    EXPECT_EQ(L"nvksprovider", splitFileName(L"nvksprovider.log").stem);
    EXPECT_EQ(L".log", splitFileName(L"nvksprovider.log").extension);
    EXPECT_EQ(L"a.b", splitFileName(L"a.b.c").stem);
    EXPECT_EQ(L".c", splitFileName(L"a.b.c").extension);
    EXPECT_EQ(L"a", splitFileName(L"a.").stem);
    EXPECT_EQ(L".", splitFileName(L"a.").extension);
}

TEST(SplitFileName, NamesWithoutADotBehindTheirFrontHaveNoExtension)
{
    EXPECT_EQ(L"name", splitFileName(L"name").stem);
    EXPECT_EQ(L"", splitFileName(L"name").extension);
    EXPECT_EQ(L".log", splitFileName(L".log").stem);
    EXPECT_EQ(L"", splitFileName(L".log").extension);
    EXPECT_EQ(L"", splitFileName(L"").stem);
}

TEST(DatedFileName, PutsTheDateBetweenStemAndExtension)
{
    std::tm day{};
    day.tm_year = 126;
    day.tm_mon = 2;
    day.tm_mday = 4;
    EXPECT_EQ(L"nvksprovider-20260304.log", datedFileName(splitFileName(L"nvksprovider.log"), day));
    EXPECT_EQ(L"other-20260304", datedFileName(splitFileName(L"other"), day));
}

TEST(IsOutdated, AFileGoesWhenItIsOlderThanTheDaysKept)
{
    EXPECT_TRUE(outdated(L"nvksprovider-20260101.log"));   // 8 days
    EXPECT_FALSE(outdated(L"nvksprovider-20260102.log"));  // 7 days
    EXPECT_FALSE(outdated(L"nvksprovider-20260109.log"));
    EXPECT_TRUE(outdated(L"nvksprovider-20251231.log"));
    EXPECT_TRUE(outdated(L"nvksprovider-20160101.log"));
}

TEST(IsOutdated, OnlyWholeDaysCount)
{
    const FileName configured = splitFileName(L"nvksprovider.log");
    const std::wstring_view name = L"nvksprovider-20260101.log";
    EXPECT_FALSE(isOutdated(name, configured, seconds(2026, 1, 8, 0, 0, 0), 7));
    EXPECT_FALSE(isOutdated(name, configured, seconds(2026, 1, 8, 23, 59, 59), 7));
    EXPECT_TRUE(isOutdated(name, configured, seconds(2026, 1, 9, 0, 0, 0), 7));
}

TEST(IsOutdated, WithNoDaysKeptYesterdayGoesAndTodayStays)
{
    EXPECT_FALSE(outdated(L"nvksprovider-20260109.log", 0));
    EXPECT_TRUE(outdated(L"nvksprovider-20260108.log", 0));
}

TEST(IsOutdated, ManyDaysKeptKeepEverything)
{
    EXPECT_FALSE(outdated(L"nvksprovider-19800101.log", INT32_MAX));
    EXPECT_FALSE(outdated(L"nvksprovider-20250110.log", 364));
    EXPECT_TRUE(outdated(L"nvksprovider-20250109.log", 364));
}

TEST(IsOutdated, FutureDatesAreKept)
{
    EXPECT_FALSE(outdated(L"nvksprovider-20260110.log"));
    EXPECT_FALSE(outdated(L"nvksprovider-20991231.log"));
    EXPECT_FALSE(outdated(L"nvksprovider-20260110.log", 0));
}

TEST(IsOutdated, OtherNamesAreLeftAlone)
{
    for (const std::wstring_view name :
         {L"nvksprovider.log", L"other-20200101.log", L"xnvksprovider-20200101.log",
          L"nvksprovide-20200101.log", L"nvksprovider-20200101", L"nvksprovider-20200101.txt",
          L"nvksprovider-20200101.LOG", L"nvksprovider-20200101.log.bak", L".log", L"",
          L"NVKSPROVIDER-20200101.log", L"20200101.log", L"nvksprovider-2020010a.log",
          L"nvksprovider--20200101.log", L"nvksprovider-20200101 .log",
          L"nvksprovider-2020-1-1.log", L"nvksprovider-2020.0101.log"})
        EXPECT_FALSE(outdated(name)) << testing::PrintToString(std::wstring(name));
}

TEST(IsOutdated, AnyOneCharacterMayStandBeforeTheDate)
{
    EXPECT_TRUE(outdated(L"nvksprovider_20200101.log"));
    EXPECT_TRUE(outdated(L"nvksproviderX20200101.log"));
    EXPECT_TRUE(outdated(L"nvksprovider.20200101.log"));
    // Skipping the first digit leaves seven: no full date.
    EXPECT_FALSE(outdated(L"nvksprovider20200101.log"));
}

TEST(IsOutdated, DigitsBehindTheDateDoNotCount)
{
    EXPECT_TRUE(outdated(L"nvksprovider-202601011.log"));
    EXPECT_FALSE(outdated(L"nvksprovider-20260102000000.log"));
}

TEST(IsOutdated, NamesWithoutAFullDateAreNeverOutdated)
{
    for (const std::wstring_view name :
         {L"nvksprovider-.log", L"nvksprovider-2.log", L"nvksprovider-2020.log",
          L"nvksprovider-202001.log", L"nvksprovider-2020010.log", L"nvksprovider-0000000.log"})
        EXPECT_FALSE(outdated(name, 0)) << testing::PrintToString(std::wstring(name));
}

TEST(IsOutdated, DaysAndMonthsPastTheirEndRunOn)
{
    // The 32nd of December is the 1st of January; the 33rd is the 2nd.
    EXPECT_TRUE(outdated(L"nvksprovider-20251232.log"));
    EXPECT_FALSE(outdated(L"nvksprovider-20251233.log"));
    // Month 13 of 2025 is January 2026.
    EXPECT_TRUE(outdated(L"nvksprovider-20251301.log"));
    EXPECT_FALSE(outdated(L"nvksprovider-20251302.log"));
    // Day 0 of January is the 31st of December; month 0 of 2026 is December 2025.
    EXPECT_TRUE(outdated(L"nvksprovider-20260100.log"));
    EXPECT_FALSE(outdated(L"nvksprovider-20260033.log"));
    EXPECT_TRUE(outdated(L"nvksprovider-20260032.log"));
}

TEST(IsOutdated, TheConfiguredNameMayBeAnother)
{
    const FileName configured = splitFileName(L"p\u00FCnkt.er.txt");
    const std::time_t now = seconds(2026, 1, 9);
    // The extension of the files that go is always ".log".
    EXPECT_TRUE(isOutdated(L"p\u00FCnkt.er-20200101.log", configured, now, 7));
    EXPECT_FALSE(isOutdated(L"p\u00FCnkt.er-20200101.txt", configured, now, 7));
    EXPECT_FALSE(isOutdated(L"nvksprovider-20200101.log", configured, now, 7));
}

}  // namespace

}  // namespace NV
