// What is said of a whole log.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "log/log_summary.h"
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
    const auto figures = summaryOf(operationsOf(log.text())).figures();
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
    const auto figures = summaryOf(operationsOf(log.text())).figures();
    ASSERT_EQ(figures.size(), 1U);
    EXPECT_EQ(figures[0].count, 7U);
    EXPECT_EQ(figures[0].median, 0);
    EXPECT_EQ(figures[0].maximum, 3);
}

TEST(LogFigures, CountSizeQueriesApart)
{
    LogText log;
    for (int i = 0; i < 3; ++i)
        log.record("INF", "NVKSPSignHash", "DONE, STATUS=0x0, ELAPSED:0.100(ms)");
    log.operation("SignHash", "30");
    const auto figures = summaryOf(operationsOf(log.text())).figures();
    ASSERT_EQ(figures.size(), 1U);
    EXPECT_EQ(figures[0].count, 1U);
    EXPECT_EQ(figures[0].sizeQueries, 3U);
    EXPECT_EQ(figures[0].median, 30);
}

TEST(LogFailures, AreCountedByTheirReason)
{
    const auto failing = [](LogText& log, const std::string& result) {
        log.enter("SignHash").call("C_Login", result).leave("SignHash", "5", "0x8009002d");
    };
    LogText log;
    failing(log, "000000a4(CKR_PIN_LOCKED)");
    failing(log, "000000a0(CKR_PIN_INCORRECT)");
    failing(log, "000000a0(CKR_PIN_INCORRECT)");
    log.operation("SignHash", "5").enter("Decrypt");
    const tool::LogSummary summary = summaryOf(operationsOf(log.text()));
    EXPECT_EQ(summary.operations(), 5U);
    EXPECT_EQ(summary.failures(), 4U);
    const auto kinds = summary.failureKinds();
    ASSERT_EQ(kinds.size(), 3U);
    EXPECT_EQ(kinds[0].count, 2U);
    EXPECT_EQ(kinds[0].status, "NTE_INTERNAL_ERROR (0x8009002d), CKR_PIN_INCORRECT");
    EXPECT_EQ(kinds[0].reason, "The PIN is wrong. The token counts the attempt.");
    EXPECT_EQ(kinds[0].latest.line, 11U);
    EXPECT_EQ(kinds[1].status, "not finished");
    EXPECT_EQ(kinds[2].reason, "The PIN is locked, usually after too many wrong ones.");
}

TEST(LogSummary, KeepsTheSlowestAndTheLatestFailures)
{
    LogText log;
    for (const char* time : {"5", "9", "1", "7", "9", "3"})
        log.operation("OpenKey", time, "0x80090027");
    tool::LogSummary summary(3, 0, 2);
    for (const tool::Operation& operation : operationsOf(log.text()))
        summary.add(operation);
    std::vector<size_t> lines;
    for (const tool::Operation& operation : summary.slowest())
        lines.push_back(operation.line);
    EXPECT_EQ(lines, (std::vector<size_t>{4, 13, 10}));
    lines.clear();
    for (const tool::Operation& operation : summary.failed())
        lines.push_back(operation.line);
    EXPECT_EQ(lines, (std::vector<size_t>{13, 16}));
    EXPECT_EQ(summary.failures(), 6U);
}

TEST(LogSummary, SaysHowManyOperationsAFullTraceWouldTellMoreOf)
{
    LogText log;
    log.operation("OpenKey", "1").record("INF", "NVKSPOpenKey", "DONE, STATUS=0x0, ELAPSED:1(ms)");
    log.record("INF", "NVKSPOpenKey", "DONE, STATUS=0x0, ELAPSED:1(ms)");
    EXPECT_EQ(summaryOf(operationsOf(log.text())).untraced(), 1U);
}

}  // namespace

}  // namespace NV::test
