// The table of results and statuses: that it is complete, and agrees with the module and with Windows.

#include <gtest/gtest.h>

#include <windows.h>

#include <set>
#include <string>

#include "keystore/token_status.h"
#include "p11/cryptoki_values.h"
#include "system/explanation.h"

namespace NV::test {

namespace {

using tool::ExitCode;
using tool::explain;
using tool::Explanation;

TEST(Explanation, HasEachResultOfPkcs11)
{
#define NV_EXPECTED(result, number)                                                                \
    ASSERT_NE(explain(uint32_t{number}), nullptr) << #result;                                      \
    EXPECT_EQ(explain(uint32_t{number})->name, #result);
    NV_CKR_VALUES(NV_EXPECTED)
#undef NV_EXPECTED
}

TEST(Explanation, HasEachStatusOfTheModule)
{
    for (const TokenStatus& row : tokenStatuses) {
        const Explanation* status = explain(row.status.value);
        ASSERT_NE(status, nullptr) << row.status.name;
        EXPECT_EQ(status->name, row.status.name);
        EXPECT_EQ(&tool::statusOfResult(row.result), status);
    }
    EXPECT_EQ(explain(noKeyFound.value)->name, noKeyFound.name);
    EXPECT_EQ(explain(otherTokenFailure.value)->name, otherTokenFailure.name);
}

// A script must not see another code in modern than in classic.
TEST(Explanation, AResultAndItsStatusHaveOneExitCode)
{
    for (const TokenStatus& row : tokenStatuses)
        EXPECT_EQ(explain(row.result)->exitCode, explain(row.status.value)->exitCode)
            << row.resultName;
}

TEST(Explanation, SaysWhatHappenedAndWhatToDo)
{
    std::set<std::string_view> names;
    for (const Explanation& row : tool::explanations()) {
        EXPECT_TRUE(names.insert(row.name).second) << row.name;
        EXPECT_TRUE(row.meaning.ends_with('.')) << row.name;
        EXPECT_TRUE(row.advice.ends_with('.') || row.value == 0) << row.name;
        EXPECT_EQ(explain(row.value), &row) << row.name;
        EXPECT_EQ(explain(row.name), &row) << row.name;
    }
}

TEST(Explanation, HasTheExitCodesOfScripts)
{
    const auto codeOf = [](std::string_view name) { return explain(name)->exitCode; };
    EXPECT_EQ(codeOf("CKR_SIGNATURE_INVALID"), ExitCode::badSignature);
    EXPECT_EQ(codeOf("NTE_USER_CANCELLED"), ExitCode::pinCancelled);
    EXPECT_EQ(codeOf("CKR_PIN_INCORRECT"), ExitCode::pinWrong);
    EXPECT_EQ(codeOf("SCARD_W_CHV_BLOCKED"), ExitCode::pinLocked);
    EXPECT_EQ(codeOf("CKR_TOKEN_NOT_PRESENT"), ExitCode::noTokenOrKey);
    EXPECT_EQ(codeOf("NTE_NO_KEY"), ExitCode::noTokenOrKey);
    EXPECT_EQ(codeOf("NTE_SILENT_CONTEXT"), ExitCode::noDesktop);
    EXPECT_EQ(codeOf("CKR_DEVICE_ERROR"), ExitCode::failed);
}

// Only the rows about a PIN may send the user to the PIN: another try can lock the token.
TEST(Explanation, SpeaksOfAWrongPinOnlyWhereThereIsOne)
{
    for (const Explanation& row : tool::explanations()) {
        const std::string text = std::string(row.meaning) + std::string(row.advice);
        const bool sendsToPin = text.find("have the correct PIN") != std::string::npos;
        EXPECT_EQ(sendsToPin, row.exitCode == ExitCode::pinWrong) << row.name;
    }
}

TEST(Explanation, IsFoundInEitherCase)
{
    EXPECT_EQ(explain("ckr_pin_locked"), explain(0xA4U));
    EXPECT_EQ(explain("NTE_ODD"), nullptr);
    EXPECT_EQ(explain(0x12345678U), nullptr);
}

TEST(Explanation, KnowsTheNearestName)
{
    EXPECT_EQ(tool::nearestName("CKR_PIN_LOCKD"), "CKR_PIN_LOCKED");
    EXPECT_EQ(tool::nearestName("pin_incorect"), "CKR_PIN_INCORRECT");
    EXPECT_EQ(tool::nearestName("NTE_INTERNAL"), "NTE_INTERNAL_ERROR");
    EXPECT_EQ(tool::nearestName("xyzzyxyzzyxyzzy"), "");
    EXPECT_EQ(tool::nearestName(""), "");
}

TEST(Explanation, LeadsFromAStatusToItsResults)
{
    std::vector<std::string_view> names;
    for (const Explanation* row : tool::resultsOfStatus(0x8010006B))
        names.push_back(row->name);
    EXPECT_EQ(names, (std::vector<std::string_view>{"CKR_PIN_INCORRECT", "CKR_PIN_INVALID",
                                                    "CKR_PIN_LEN_RANGE"}));
    EXPECT_TRUE(tool::resultsOfStatus(0x8009002D).empty());
    EXPECT_EQ(tool::statusOfResult(CKR_GENERAL_ERROR).name, "NTE_INTERNAL_ERROR");
}

TEST(Explanation, NamesStatuses)
{
    EXPECT_EQ(tool::statusText(NTE_INTERNAL_ERROR), "NTE_INTERNAL_ERROR (0x8009002d)");
    EXPECT_EQ(tool::statusText(NTE_USER_CANCELLED), "NTE_USER_CANCELLED (0x80090036)");
    EXPECT_EQ(tool::statusText(static_cast<SECURITY_STATUS>(0xC0000022)),
              "STATUS_ACCESS_DENIED (0xc0000022)");
    EXPECT_EQ(tool::statusText(0x1234), "0x00001234");
}

// Other statuses of the module, with the names of winerror.h.
TEST(Explanation, NamesEachStatusOfTheModule)
{
#define NV_NAMED(status) EXPECT_EQ(explain(static_cast<uint32_t>(status))->name, #status)
    NV_NAMED(NTE_BAD_DATA);
    NV_NAMED(NTE_BAD_FLAGS);
    NV_NAMED(NTE_BAD_KEYSET);
    NV_NAMED(NTE_INVALID_HANDLE);
    NV_NAMED(NTE_INVALID_PARAMETER);
    NV_NAMED(NTE_NOT_FOUND);
    NV_NAMED(NTE_NO_MORE_ITEMS);
    NV_NAMED(NTE_SILENT_CONTEXT);
#undef NV_NAMED
}

}  // namespace

}  // namespace NV::test
