// The table of PKCS#11 results and statuses.

#include "keystore/token_status.h"

#include <gtest/gtest.h>

#ifdef _WIN32
#include <windows.h>
#endif

#include <map>
#include <string>

namespace NV {
namespace {

TEST(TokenStatus, aResultWithoutARowIsAnInternalError)
{
    for (const CK_RV result : {CKR_GENERAL_ERROR, CKR_FUNCTION_FAILED, CKR_USER_NOT_LOGGED_IN,
                               CK_RV{0x80000000}, CK_RV{0xFFFFFFFF}, CKR_CANCEL})
        EXPECT_EQ(otherTokenFailure.value, tokenStatus(result).value) << result;
    EXPECT_EQ("NTE_INTERNAL_ERROR", tokenStatus(CKR_GENERAL_ERROR).name);
}

TEST(TokenStatus, theFirstAndTheLastRowAreFound)
{
    EXPECT_EQ("NTE_NO_MEMORY", tokenStatus(CKR_HOST_MEMORY).name);
    EXPECT_EQ("NTE_BUFFER_TOO_SMALL", tokenStatus(CKR_BUFFER_TOO_SMALL).name);
}

TEST(TokenStatus, eachRowHasTheNameOfItsResult)
{
    const std::map<std::string, CK_RV, std::less<>> values = {
#define NV_VALUE(name, value) {#name, value},
        NV_CKR_VALUES(NV_VALUE)
#undef NV_VALUE
    };
    for (const TokenStatus& row : tokenStatuses) {
        const auto value = values.find(row.resultName);
        ASSERT_NE(values.end(), value) << row.resultName;
        EXPECT_EQ(value->second, row.result) << row.resultName;
    }
}

TEST(TokenStatus, aStatusHasOneValue)
{
    std::map<std::string_view, uint32_t> values = {
        {otherTokenFailure.name, otherTokenFailure.value}, {noKeyFound.name, noKeyFound.value}};
    for (const TokenStatus& row : tokenStatuses)
        EXPECT_EQ(row.status.value, values.emplace(row.status.name, row.status.value).first->second)
            << row.status.name;
}

TEST(TokenFailure, theFirstOneCounts)
{
    TokenFailure failure;
    EXPECT_FALSE(failure.failed());
    EXPECT_FALSE(failure.withholdsKey());
    failure.note(CKR_PIN_LOCKED);
    failure.note(CKR_USER_NOT_LOGGED_IN);
    failure.noteNoKey();
    EXPECT_TRUE(failure.failed());
    EXPECT_EQ("SCARD_W_CHV_BLOCKED", failure.status().name);
    EXPECT_EQ(CKR_PIN_LOCKED, failure.result());
    EXPECT_FALSE(failure.withholdsKey());
}

TEST(TokenFailure, aMissingKeyIsNoKeyAndIsWithheld)
{
    TokenFailure failure;
    failure.noteNoKey();
    failure.note(CKR_DEVICE_REMOVED);
    EXPECT_TRUE(failure.failed());
    EXPECT_EQ("NTE_NO_KEY", failure.status().name);
    EXPECT_TRUE(failure.withholdsKey());
}

TEST(TokenFailure, aMissingLoginWithholdsTheKey)
{
    TokenFailure failure;
    failure.note(CKR_USER_NOT_LOGGED_IN);
    EXPECT_TRUE(failure.withholdsKey());
    EXPECT_EQ("NTE_INTERNAL_ERROR", failure.status().name);
}

#ifdef _WIN32
TEST(TokenStatus, theValuesAreThoseOfWindows)
{
    const std::map<std::string_view, HRESULT> windows = {
#define NV_STATUS(name) {#name, name}
        NV_STATUS(NTE_BAD_LEN),
        NV_STATUS(NTE_BAD_SIGNATURE),
        NV_STATUS(NTE_BUFFER_TOO_SMALL),
        NV_STATUS(NTE_INTERNAL_ERROR),
        NV_STATUS(NTE_NOT_SUPPORTED),
        NV_STATUS(NTE_NO_KEY),
        NV_STATUS(NTE_NO_MEMORY),
        NV_STATUS(NTE_PASSWORD_CHANGE_REQUIRED),
        NV_STATUS(NTE_USER_CANCELLED),
        NV_STATUS(SCARD_W_CARD_NOT_AUTHENTICATED),
        NV_STATUS(SCARD_W_CHV_BLOCKED),
        NV_STATUS(SCARD_W_REMOVED_CARD),
        NV_STATUS(SCARD_W_UNSUPPORTED_CARD),
        NV_STATUS(SCARD_W_WRONG_CHV),
#undef NV_STATUS
    };
    const auto expectWindowsValue = [&](const NamedStatus& status) {
        const auto value = windows.find(status.name);
        ASSERT_NE(windows.end(), value) << status.name;
        EXPECT_EQ(static_cast<uint32_t>(value->second), status.value) << status.name;
    };
    expectWindowsValue(otherTokenFailure);
    expectWindowsValue(noKeyFound);
    for (const TokenStatus& row : tokenStatuses)
        expectWindowsValue(row.status);
}
#endif

}  // namespace
}  // namespace NV
