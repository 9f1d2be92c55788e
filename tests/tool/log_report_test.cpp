// The calls of operations as lines and as bars.

#include <gtest/gtest.h>

#include <string>

#include "log/log_report.h"
#include "log_text.h"

namespace NV::test {

namespace {

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

// The records have whole milliseconds, so a call can seem to begin before the end of the one before.
TEST(LogBars, FollowEachOther)
{
    tool::Operation operation;
    operation.begun = 1000;
    operation.elapsed = 3;
    operation.calls = {{"C_A", "CKR_OK", 1000, 2.5}, {"C_B", "CKR_OK", 1001, 1}};
    auto bars = tool::barsOf(operation);
    ASSERT_EQ(bars.size(), 2U);
    EXPECT_EQ(bars[1].begin, 2.5);
    EXPECT_EQ(tool::spanOf(operation, bars), 3.5);
    operation.calls[1].result = tool::noReturn;
    bars = tool::barsOf(operation);
    EXPECT_EQ(bars[1].width, 1);
    EXPECT_GT(tool::spanOf(tool::Operation(), {}), 0);
}

}  // namespace

}  // namespace NV::test
