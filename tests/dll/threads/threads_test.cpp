// Eight threads at once on the module and on its objects, with the scripted token: every result is
// the right one, no sequence of token calls lies inside another, and the log stays whole.

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "threads_fixture.h"
#include "together.h"
#include "trace_log.h"

namespace NV::test {

namespace {

class LoggedThreadsTest : public ThreadsTest {
protected:
    LoggedThreadsTest() : ThreadsTest(true) {}
};

// Functions of one thread that are still on their way.
using Open = std::vector<std::string>;

// A LEAVE belongs to the innermost function that was entered on the same thread.
std::string misplacedLeaves(const LogLines& lines)
{
    std::map<std::string, Open> threads;
    std::string misplaced;
    for (const LogLine& line : lines) {
        Open& open = threads[line.identity];
        if (line.message == "ENTER") {
            open.push_back(line.function);
        } else if (line.message.starts_with("LEAVE")) {
            if (open.empty() || open.back() != line.function)
                misplaced += line.raw + "\n";
            else
                open.pop_back();
        }
    }
    for (const auto& [thread, open] : threads)
        misplaced += open.empty() ? "" : thread + " never left " + open.back() + "\n";
    return misplaced;
}

// How often each function of the library was called, by the log.
std::map<std::string, int> loggedCalls(const LogLines& lines)
{
    const std::string prefix = "CALL ";
    const std::string suffix = "(): START";
    std::map<std::string, int> calls;
    for (const LogLine& line : lines) {
        const std::string& text = line.message;
        if (text.starts_with(prefix) && text.ends_with(suffix))
            ++calls[text.substr(prefix.size(), text.size() - prefix.size() - suffix.size())];
    }
    return calls;
}

std::map<std::string, int> counted(const std::vector<std::string>& names)
{
    std::map<std::string, int> counts;
    for (const std::string& name : names)
        ++counts[name];
    return counts;
}

}  // namespace

TEST_P(ThreadsTest, mixedWorkOnTwoProviders)
{
    EXPECT_EQ(workOnTwoProviders(token(), rounds(1000)), "");
}

TEST_P(ThreadsTest, dialogsOnTwoProvidersBesideOtherWork)
{
    EXPECT_EQ(workWithDialogs(token(), rounds(2)), "");
}

TEST_P(ThreadsTest, providersComeAndGoWhileOthersWork)
{
    EXPECT_EQ(openAndFreeProviders(token(), rounds(5)), "");
}

TEST_P(ThreadsTest, aProviderIsFreedInTheMiddleOfItsWork)
{
    EXPECT_EQ(freeAProviderInUse(token(), rounds(20)), "");
}

TEST_P(ThreadsTest, freeingDoesNotWaitForTheDialogOfAnotherThread)
{
    EXPECT_EQ(freeUnderAnOpenDialog(token()), "");
}

TEST_P(ThreadsTest, workWithPinOnTwoSetsOfObjects)
{
    EXPECT_EQ(workWithPins(ScriptedToken::path(), facts, known, rounds(100)), "");
}

// Each line is a whole record (or reading the log throws), each thread's lines tell a whole story,
// and none is missing.
TEST_P(LoggedThreadsTest, theLogStaysWhole)
{
    EXPECT_EQ(workOnTwoProviders(token(), rounds(5)), "");
    const LogLines lines = profile.log();
    EXPECT_EQ(misplacedLeaves(lines), "");
    auto logged = loggedCalls(lines);
    auto seen = counted(work.token.callNames());
    for (const char* name : {"C_OpenSession", "C_FindObjects", "C_Verify", "C_Encrypt", "C_Digest",
                             "C_CreateObject", "C_Sign", "C_CloseSession"}) {
        EXPECT_GT(logged[name], 0) << name;
        EXPECT_EQ(logged[name], seen[name]) << name;
    }
}

NV_IN_BOTH_BEHAVIOURS(ThreadsTest);
NV_IN_BOTH_BEHAVIOURS(LoggedThreadsTest);

}  // namespace NV::test
