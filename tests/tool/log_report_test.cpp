// The figures of operations, and their calls as lines.

#include <gtest/gtest.h>

#include <string>

#include "log/log_report.h"
#include "log_text.h"

namespace NV::test {

namespace {

TEST(LogFigures, MedianNearestRankAndMaximum)
{
    LogText log;
    for (int i = 20; i >= 1; --i)
        log.operation("SignHash", std::to_string(i), i % 5 == 0 ? "0x80090027" : "0x0");
    for (const char* time : {"30", "10", "20"})
        log.operation("OpenKey", time);
    log.enter("Decrypt");  // never finished
    const auto figures = tool::figuresOf(operationsOf(log.text()));
    ASSERT_EQ(figures.size(), 2U);
    EXPECT_EQ(figures[0].name, "OpenKey");
    EXPECT_EQ(figures[0].count, 3U);
    EXPECT_EQ(figures[0].median, 20);
    EXPECT_EQ(figures[0].percentile95, 30);
    EXPECT_EQ(figures[1].name, "SignHash");
    EXPECT_EQ(figures[1].count, 20U);
    EXPECT_EQ(figures[1].failures, 4U);
    EXPECT_EQ(figures[1].median, 10.5);
    EXPECT_EQ(figures[1].percentile95, 19);
    EXPECT_EQ(figures[1].maximum, 20);
}

TEST(LogFigures, TakeNoTimeFromWhatIsNone)
{
    LogText log;
    for (const char* time : {"nan", "inf", "-5", "1e999", "odd", "", "3"})
        log.operation("SignHash", time);
    const auto figures = tool::figuresOf(operationsOf(log.text()));
    ASSERT_EQ(figures.size(), 1U);
    EXPECT_EQ(figures[0].count, 7U);
    EXPECT_EQ(figures[0].median, 0);
    EXPECT_EQ(figures[0].maximum, 3);
}

TEST(LogCalls, NeighboursShareALine)
{
    const auto lines = tool::describe(
        {{"C_Sign", "", 0, 1.5}, {"C_Sign", "", 0, 2.5}, {"C_Login", "CKR_PIN_LOCKED", 0, 1}});
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].text, "     4.000 ms  C_Sign (2 calls)");
    EXPECT_FALSE(lines[0].failed);
    EXPECT_EQ(lines[1].text, "     1.000 ms  C_Login  CKR_PIN_LOCKED");
    EXPECT_TRUE(lines[1].failed);
}

}  // namespace

}  // namespace NV::test
