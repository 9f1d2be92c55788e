// The log fails in the middle of an operation, at each of its records: what was acquired is released
// whether or not it can be told, the caller gets the log's error or the operation's own failure, and the
// next operation works.

#include <gtest/gtest.h>

#include <tuple>

#include "event_matrix.h"
#include "log_event.h"
#include "module_table.h"

namespace NV::test {

namespace {

// An operation on the token turns an exception out of a call's own lines into a failure of the call,
// and so does opening.
std::string logRule(const ProviderCase& row, const Ending& ending)
{
    const std::string name = row.name;
    const bool mayFail = row.memory == MemoryRule::token || row.memory == MemoryRule::opening;
    switch (ending.way) {
    case Ending::Way::returned:
        if (ending.status == ERROR_SUCCESS ||
            (mayFail && ending.status == SECURITY_STATUS{NTE_INTERNAL_ERROR}))
            return "";
        return "the status is " + std::to_string(static_cast<unsigned>(ending.status)) + "; ";
    case Ending::Way::filesystemError:
        // Nobody could catch it there.
        return name == "clear" ? "the error of the log leaves the detach; " : "";
    default:
        return "another exception than the log's leaves; ";
    }
}

// The log fails no call.
std::string modernLogRule(const ProviderCase&, const Ending& ending)
{
    return ending.done() ? "" : "the call fails; ";
}

// In which behaviour, and which operation.
using Case = std::tuple<Behaviour, ProviderCase>;

class LogFailureTest : public testing::TestWithParam<Case> {
protected:
    static void run(LogCause cause, Extent extent, size_t step)
    {
        const auto& [behaviour, row] = GetParam();
        const bool modern = behaviour == Behaviour::modern;
        const ModeOf mode(behaviour);
        LogEvent event(cause);
        EventMatrix matrix(row, event, modern ? &modernLogRule : &logRule, behaviour,
                           modern ? moduleTable() : nullptr);
        const std::vector<std::string> records = matrix.recordsOfGoodRun();
        // Opening writes a thousand lines, and each fails in the same way.
        if (modern && step == 1 && row.memory == MemoryRule::opening)
            step = 7;
        Findings findings;
        findings.describeBy([&](size_t nth) {
            return nth <= records.size() ? records[nth - 1] : "after the last of a good run";
        });
        const size_t events = matrix.run(extent, step, findings);
        EXPECT_TRUE(findings.empty()) << findings.text();
        if (step == 1) {
            EXPECT_EQ(records.size(), events);
        }
    }
};

// The error as the logger itself throws it. It costs a file each record, so this is a sample.
class LogFolderFailureTest : public LogFailureTest {};

}  // namespace

TEST_P(LogFailureTest, oneRecordCannotBeWritten)
{
    run(LogCause::clock, Extent::once, 1);
}

TEST_P(LogFailureTest, noRecordCanBeWrittenAnyMore)
{
    run(LogCause::clock, Extent::fromThenOn, 1);
}

TEST_P(LogFolderFailureTest, theFolderIsAFile)
{
    run(LogCause::folder, Extent::once, 5);
}

TEST_P(LogFolderFailureTest, theFolderStaysAFile)
{
    run(LogCause::folder, Extent::fromThenOn, 13);
}

const auto nameOfCase = [](const auto& info) { return std::get<ProviderCase>(info.param).name; };
const auto classic = testing::Values(Behaviour::classic);
const auto modern = testing::Values(Behaviour::modern);
const auto every = testing::ValuesIn(providerCases());
const auto some = testing::ValuesIn(
    providerCasesNamed({"OpenKey_RSA", "SignHash_PKCS1", "SecretAgreement", "FreeProvider"}));

INSTANTIATE_TEST_SUITE_P(Operations, LogFailureTest, testing::Combine(classic, every), nameOfCase);
INSTANTIATE_TEST_SUITE_P(Modern, LogFailureTest, testing::Combine(modern, every), nameOfCase);
INSTANTIATE_TEST_SUITE_P(Operations, LogFolderFailureTest, testing::Combine(classic, some),
                         nameOfCase);
INSTANTIATE_TEST_SUITE_P(Modern, LogFolderFailureTest, testing::Combine(modern, some), nameOfCase);

}  // namespace NV::test
