// Which logs a report takes, and what of them.

#include "log/redacted_logs.h"

#include <gtest/gtest.h>

#include <string>

#include "failure.h"
#include "folder.h"

namespace NV::test {

namespace {

using tool::chooseLogs;
using tool::ChosenLog;
using tool::LogChoice;
using tool::LogFile;
using tool::RedactionCounts;

const std::string record =
    "2026-03-04 17:05:09.042 TRC [04312,1a2b3c4d] NV::Provider::init[x.cpp:1]:";

class RedactedLogs : public testing::Test {
protected:
    LogFile log(const std::string& day, const std::string& content)
    {
        const auto file = folder.path() / ("nvksprovider-" + day + ".log");
        writeFile(file, content);
        return {file, day, {}};
    }

    std::string read(const LogFile& file, uint64_t begin = 0)
    {
        const ChosenLog chosen{file, std::filesystem::file_size(file.path), begin};
        std::string text;
        counts = tool::readRedacted(
            chosen, [] {}, [&](std::string_view piece) { text += piece; }, problem);
        return text;
    }

    TemporaryFolder folder;
    RedactionCounts counts;
    std::string problem;
};

TEST_F(RedactedLogs, AreThoseOfTheLastDaysTheNewestFirst)
{
    const LogChoice choice = chooseLogs(
        {log("2026-03-04", "four"), log("2026-03-01", "one"), log("2026-03-03", "three")},
        "2026-03-03", 100);
    ASSERT_EQ(choice.logs.size(), 2U);
    EXPECT_EQ(choice.logs[0].file.day, "2026-03-04");
    EXPECT_EQ(choice.logs[1].file.day, "2026-03-03");
    EXPECT_EQ(choice.logs[1].size, 5U);
    EXPECT_EQ(choice.logs[1].begin, 0U);
    EXPECT_EQ(choice.older, 1U);
    EXPECT_EQ(choice.dropped, 0U);
}

TEST_F(RedactedLogs, AreBounded)
{
    const LogChoice choice = chooseLogs(
        {log("2026-03-04", "four"), log("2026-03-03", "three"), log("2026-03-02", "two")},
        "2026-03-01", 6);
    ASSERT_EQ(choice.logs.size(), 2U);
    EXPECT_EQ(choice.logs[0].begin, 0U);
    EXPECT_EQ(choice.logs[1].begin, 3U);
    EXPECT_EQ(choice.dropped, 1U);
}

TEST_F(RedactedLogs, LeaveOutAFileThatIsGone)
{
    const LogFile gone{folder.path() / "nvksprovider-2026-03-04.log", "2026-03-04", {}};
    EXPECT_TRUE(chooseLogs({gone}, "2026-03-04", 100).logs.empty());
    EXPECT_THROW(
        tool::readRedacted(
            {gone, 10, 0}, [] { ADD_FAILURE(); }, [](std::string_view) { ADD_FAILURE(); }, problem),
        tool::Failure);
}

TEST_F(RedactedLogs, AreReadLineByLine)
{
    const LogFile file = log("2026-03-04", record + "ENTER\n" + record + "PUBLICKEY = 1234\r\n" +
                                               record + "odd 1234\n" + "1234\n" + record + "LEAVE");
    EXPECT_EQ(read(file), record + "ENTER\n" + record + "(taken out)\n" + record +
                              "(taken out)\n(4 bytes that are no record were taken out)\n" +
                              record + "LEAVE\n");
    EXPECT_EQ(counts.lines, 5U);
    EXPECT_EQ(counts.values, 0U);
    EXPECT_EQ(counts.messages, 2U);
    EXPECT_EQ(counts.foreign, 1U);
    EXPECT_EQ(problem, "");
}

TEST_F(RedactedLogs, BeginWithAWholeLine)
{
    const std::string line = record + "ENTER\n";
    const LogFile file = log("2026-03-04", line + line + record + "LEAVE\n");
    for (size_t begin = 1; begin <= line.size(); ++begin)
        EXPECT_EQ(read(file, begin), line + record + "LEAVE\n") << begin;
    EXPECT_EQ(read(file, line.size() + 1), record + "LEAVE\n");
    // The secret's second half alone would be no line that somebody knows.
    const LogFile one = log("2026-03-05", "1234");
    EXPECT_EQ(read(one, 2), "");
}

}  // namespace

}  // namespace NV::test
