// Every wrapper of the call layer, on the scripted token: its whole block of log lines, what it
// passes on, and what it does when the library fails, throws, is not there or lacks the function.

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "log_capture.h"
#include "p11/p11.h"
#include "scripted_token.h"
#include "wrapper_cases.h"

namespace NV::test {

namespace {

using Strings = std::vector<std::string>;

std::vector<WrapperCase> allCases()
{
    std::vector<WrapperCase> all;
    for (const auto rows :
         {generalCases(), sessionsCases(), objectsCases(), cryptoCases(), keysCases()})
        all.insert(all.end(), rows.begin(), rows.end());
    return all;
}

// What all cases share, because loading a library anew for each of them would take most of the time.
struct Workshop {
    LogCapture capture;
    ScriptedToken token;
    Pkcs11 p11;
    Pkcs11 withoutModule;
};

std::unique_ptr<Workshop> workshop;

constexpr std::string_view success = "00000000(CKR_OK)";

// The log lines of a row's call.
class Block {
public:
    explicit Block(const WrapperCase& row) : row_(row) {}

    // Of a call that the library answers with the result.
    std::string whole(std::string_view result) const
    {
        const std::string outcome = row_.outcome == Outcome::result
                                        ? "Result = " + std::string(result) + ", Elapsed [# msec]"
                                        : "END [# msec]";
        return untilStart() + line("TRC", call() + outcome) +
               (result == success ? placed(row_.after) : "") + end(result);
    }
    // Of a call that ends with this error instead, once the library is to be called.
    std::string broken(const std::string& error, std::string_view result) const
    {
        return untilStart() + line("ERR", error) + end(result);
    }
    // Of a call that is refused.
    std::string refused(const std::string& error, std::string_view result) const
    {
        return arguments() + line("ERR", error) + end(result);
    }

private:
    std::string call() const { return "CALL " + std::string(row_.name) + "(): "; }
    std::string line(const std::string& level, const std::string& message) const
    {
        return level + " NV::Pkcs11::" + row_.name + ":" + message + "\n";
    }
    std::string arguments() const
    {
        constexpr std::string_view between = ", ";
        std::string text = line("TRC", "ENTER");
        std::string_view rest = row_.arguments;
        for (size_t i = 0; !rest.empty(); ++i) {
            const size_t length = std::min(rest.find(between), rest.size());
            text += line("DBG",
                         "ARG[" + std::to_string(i) + "]:" + std::string(rest.substr(0, length)));
            rest.remove_prefix(std::min(length + between.size(), rest.size()));
        }
        return text;
    }
    std::string untilStart() const
    {
        return arguments() + placed(row_.before) + line("TRC", call() + "START");
    }
    // The row's own lines, with the function's name.
    std::string placed(std::string_view lines) const
    {
        std::string text;
        while (!lines.empty()) {
            const size_t length = lines.find('\n');
            text += line(std::string(lines.substr(0, 3)), std::string(lines.substr(4, length - 4)));
            lines.remove_prefix(length + 1);
        }
        return text;
    }
    // C_Initialize alone shows its result a second time.
    std::string end(std::string_view result) const
    {
        const bool tells = row_.name == std::string_view("C_Initialize");
        return (tells ? line("INF", "RETURN CODE:" + std::string(result)) : "") +
               line("TRC", "LEAVE");
    }

    WrapperCase row_;
};

class WrapperTest : public testing::TestWithParam<WrapperCase> {
protected:
    static void SetUpTestSuite()
    {
        workshop = std::make_unique<Workshop>();
        ASSERT_TRUE(workshop->p11.loadModule(ScriptedToken::path()));
    }
    static void TearDownTestSuite() { workshop.reset(); }

    // Brings the token to where the call succeeds.
    void SetUp() override
    {
        token.reset();
        addBenchObjects(token);
        const CK_FUNCTION_LIST direct = token.exports();
        CK_RV rv = CKR_OK;
        CK_SESSION_HANDLE session = 0;
        if (row.state >= State::initialised)
            rv |= direct.C_Initialize(nullptr);
        if (row.state >= State::sessionOpen)
            rv |= direct.C_OpenSession(kSlot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr,
                                       &session);
        if (row.state >= State::loggedIn)
            rv |= direct.C_Login(session, CKU_USER, bench.userPin, kPin.size());
        if (row.prepare != nullptr)
            rv |= row.prepare(direct, bench);
        ASSERT_EQ(CKR_OK, rv);
        token.clearCalls();
        workshop->capture.takeLines();
    }

    CK_RV call(Pkcs11& p11) { return row.call(p11, bench); }
    std::string log() const { return bench.named(render(workshop->capture.takeLines())); }

    WrapperCase row = GetParam();
    Block block{row};
    Bench bench;
    ScriptedToken& token = workshop->token;
};

TEST_P(WrapperTest, LogsAndPassesOnItsCall)
{
    EXPECT_EQ(CKR_OK, call(workshop->p11));
    EXPECT_EQ(block.whole(success), log());
    EXPECT_EQ(Strings{row.recorded}, token.calls());
}

TEST_P(WrapperTest, LogsTheLibrarysFailure)
{
    token.fail(row.name, CKR_DEVICE_REMOVED);
    EXPECT_EQ(CKR_DEVICE_REMOVED, call(workshop->p11));
    EXPECT_EQ(block.whole("00000032(CKR_DEVICE_REMOVED)"), log());
    EXPECT_EQ(Strings{row.recorded}, token.calls());
}

TEST_P(WrapperTest, CatchesTheLibrarysException)
{
    token.throwFrom(row.name);
    EXPECT_EQ(CKR_FUNCTION_FAILED, call(workshop->p11));
    EXPECT_EQ(block.broken("Caught Exception", "00000006(CKR_FUNCTION_FAILED)"), log());
    // The lock is free again.
    token.clearFaults();
    CK_ULONG count = 0;
    workshop->p11.C_GetSlotList(CK_TRUE, nullptr, &count);
    EXPECT_EQ(2U, token.calls().size());
}

TEST_P(WrapperTest, RefusesWithoutModule)
{
    EXPECT_EQ(CKR_GENERAL_ERROR, call(workshop->withoutModule));
    EXPECT_EQ(block.refused("Function List is not initialized", "00000005(CKR_GENERAL_ERROR)"),
              log());
    EXPECT_EQ(Strings{}, token.calls());
}

// Sets the entry of one function in the library's list to null, and puts it back.
class WithoutEntry {
public:
    WithoutEntry(CK_FUNCTION_LIST* list, const std::string& name) : list_(list), saved_(*list)
    {
#define NV_REMOVE(function, parameters)                                                            \
    if (name == #function)                                                                         \
        list->function = nullptr;
        NV_CK_FUNCTIONS(NV_REMOVE)
#undef NV_REMOVE
    }
    ~WithoutEntry()
    {
        *list_ = saved_;
    }
    WithoutEntry(const WithoutEntry&) = delete;
    WithoutEntry& operator=(const WithoutEntry&) = delete;

private:
    CK_FUNCTION_LIST* list_;
    CK_FUNCTION_LIST saved_;
};

TEST_P(WrapperTest, FailsWithoutTheFunction)
{
    const WithoutEntry missing(workshop->p11.module()->functionList(), row.name);
    EXPECT_EQ(CKR_FUNCTION_FAILED, call(workshop->p11));
    EXPECT_EQ(block.broken("Caught Exception", "00000006(CKR_FUNCTION_FAILED)"), log());
    EXPECT_EQ(Strings{}, token.calls());
}

INSTANTIATE_TEST_SUITE_P(Pkcs11, WrapperTest, testing::ValuesIn(allCases()),
                         [](const testing::TestParamInfo<WrapperCase>& row) {
                             return std::string(row.param.name);
                         });

TEST(Pkcs11TableTest, HasEveryFunctionOnceInTheListsOrder)
{
#define NV_QUOTE(function, parameters) #function,
    const Strings functions{NV_CK_FUNCTIONS(NV_QUOTE)};
#undef NV_QUOTE
    Strings rows;
    for (const WrapperCase& row : allCases())
        rows.push_back(row.name);
    EXPECT_EQ(functions, rows);
    EXPECT_EQ(68U, rows.size());
}

}  // namespace

}  // namespace NV::test
