// Times as people write them, and the choice of operations.

#include <gtest/gtest.h>

#include <string>

#include "log/log_filter.h"

namespace NV::test {

namespace {

constexpr std::string_view now = "2026-03-04 17:05:09.042";

// The moment as milliseconds after the beginning of 2026-03-04.
int64_t after(std::string_view text, bool last = false)
{
    const auto moment = tool::parseMoment(text, now, last);
    EXPECT_TRUE(moment) << text;
    return moment.value_or(0) - tool::parseTime("2026-03-04 00:00:00.000").value_or(0);
}

constexpr int64_t minute = 60'000;
constexpr int64_t hour = 60 * minute;

TEST(LogMoment, IsADayATimeOrAnAge)
{
    EXPECT_EQ(after("2026-03-04"), 0);
    EXPECT_EQ(after("2026-03-05 01:30"), 25 * hour + 30 * minute);
    EXPECT_EQ(after("2026-03-04T01:00:02"), hour + 2000);
    EXPECT_EQ(after("2026-03-04 01:00:02.003"), hour + 2003);
    EXPECT_EQ(after("02:00"), 2 * hour);
    EXPECT_EQ(after("02:00:01"), 2 * hour + 1000);
    EXPECT_EQ(after("2h"), 15 * hour + 5 * minute + 9042);
    EXPECT_EQ(after("30m"), 16 * hour + 35 * minute + 9042);
    EXPECT_EQ(after("7d"), after("2h") - 7LL * 24 * hour + 2 * hour);
    EXPECT_EQ(after("9s"), 17 * hour + 5 * minute + 42);
}

TEST(LogMoment, AsTheLastOneIsTheEndOfItsDayOrMinute)
{
    EXPECT_EQ(after("2026-03-04", true), 24 * hour - 1);
    EXPECT_EQ(after("02:00", true), 2 * hour + minute - 1);
    EXPECT_EQ(after("02:00:01", true), 2 * hour + 1999);
    EXPECT_EQ(after("2h", true), after("2h"));
}

TEST(LogMoment, IsNothingElse)
{
    for (const char* text : {"", "yesterday", "2026", "2026-13-01", "2026-03-32",
                             "2026-03-04 24:00", "2026-03-04 17:60", "2026-03-04 1", "17", "h",
                             "-2h", "2.5h", "9999999999h", "2026-03-04 17:05:09.0421"})
        EXPECT_FALSE(tool::parseMoment(text, now, false)) << text;
}

TEST(LogFilter, TakesWhatFits)
{
    tool::Operation operation;
    operation.name = "SignHash";
    operation.process = "04312";
    operation.begun = 1000;
    operation.finished = true;
    const auto takes = [&](const tool::LogFilter& filter) { return filter.takes(operation); };
    EXPECT_TRUE(takes({}));
    EXPECT_TRUE(takes({.operation = "SignHash"}));
    EXPECT_FALSE(takes({.operation = "OpenKey"}));
    EXPECT_TRUE(takes({.since = 1000, .until = 1000}));
    EXPECT_FALSE(takes({.since = 1001}));
    EXPECT_FALSE(takes({.until = 999}));
    // The log has leading zeros.
    EXPECT_TRUE(takes({.process = 4312}));
    EXPECT_FALSE(takes({.process = 431}));
    EXPECT_FALSE(takes({.failed = true}));
    operation.status = 0x80090027;
    EXPECT_TRUE(takes({.failed = true}));
    operation.finished = false;
    EXPECT_TRUE(takes({.failed = true}));
}

TEST(LogFilter, TakesTheDaysThatItsTimesTouch)
{
    const auto since = tool::parseMoment("2026-03-04 17:00", now, false);
    const auto until = tool::parseMoment("2026-03-05 01:00", now, true);
    const tool::LogFilter filter{.since = since, .until = until};
    EXPECT_FALSE(filter.takesDay("2026-03-03"));
    EXPECT_TRUE(filter.takesDay("2026-03-04"));
    EXPECT_TRUE(filter.takesDay("2026-03-05"));
    EXPECT_FALSE(filter.takesDay("2026-03-06"));
    EXPECT_FALSE(filter.takesDay("2030-01-01"));
}

}  // namespace

}  // namespace NV::test
