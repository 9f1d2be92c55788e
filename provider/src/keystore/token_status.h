// The statuses of failed operations on the token: a PKCS#11 result and its status, one row each.
// Portable. With mode=modern, TokenSequence answers by this table; the tool and the pages show it.

#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string_view>

#include "p11/cryptoki.h"

namespace NV {

// A status as Windows names it. token_status_test.cpp compares the values with those of winerror.h.
struct NamedStatus {
    std::string_view name;
    uint32_t value;
};

inline constexpr NamedStatus otherTokenFailure = {"NTE_INTERNAL_ERROR", 0x8009002D};
inline constexpr NamedStatus noKeyFound = {"NTE_NO_KEY", 0x8009000D};

struct TokenStatus {
    CK_RV result;
    std::string_view resultName;
    NamedStatus status;
};

// The name written once.
#define NV_ROW(result, name, value)                                                                \
    TokenStatus                                                                                    \
    {                                                                                              \
        result, #result,                                                                           \
        {                                                                                          \
            name, value                                                                            \
        }                                                                                          \
    }

// By the value of the result. Any other result is otherTokenFailure.
inline constexpr TokenStatus tokenStatuses[] = {
    NV_ROW(CKR_HOST_MEMORY, "NTE_NO_MEMORY", 0x8009000E),
    NV_ROW(CKR_SLOT_ID_INVALID, "SCARD_W_REMOVED_CARD", 0x80100069),
    NV_ROW(CKR_DATA_LEN_RANGE, "NTE_BAD_LEN", 0x80090004),
    NV_ROW(CKR_DEVICE_MEMORY, "NTE_NO_MEMORY", 0x8009000E),
    NV_ROW(CKR_DEVICE_REMOVED, "SCARD_W_REMOVED_CARD", 0x80100069),
    NV_ROW(CKR_FUNCTION_CANCELED, "NTE_USER_CANCELLED", 0x80090036),
    NV_ROW(CKR_FUNCTION_NOT_SUPPORTED, "NTE_NOT_SUPPORTED", 0x80090029),
    NV_ROW(CKR_KEY_FUNCTION_NOT_PERMITTED, "NTE_NOT_SUPPORTED", 0x80090029),
    NV_ROW(CKR_MECHANISM_INVALID, "NTE_NOT_SUPPORTED", 0x80090029),
    NV_ROW(CKR_MECHANISM_PARAM_INVALID, "NTE_NOT_SUPPORTED", 0x80090029),
    NV_ROW(CKR_PIN_INCORRECT, "SCARD_W_WRONG_CHV", 0x8010006B),
    NV_ROW(CKR_PIN_INVALID, "SCARD_W_WRONG_CHV", 0x8010006B),
    NV_ROW(CKR_PIN_LEN_RANGE, "SCARD_W_WRONG_CHV", 0x8010006B),
    NV_ROW(CKR_PIN_EXPIRED, "NTE_PASSWORD_CHANGE_REQUIRED", 0x80090037),
    NV_ROW(CKR_PIN_LOCKED, "SCARD_W_CHV_BLOCKED", 0x8010006C),
    // A signature that does not verify, or has a wrong length.
    NV_ROW(CKR_SIGNATURE_INVALID, "NTE_BAD_SIGNATURE", 0x80090006),
    NV_ROW(CKR_SIGNATURE_LEN_RANGE, "NTE_BAD_SIGNATURE", 0x80090006),
    NV_ROW(CKR_TOKEN_NOT_PRESENT, "SCARD_W_REMOVED_CARD", 0x80100069),
    NV_ROW(CKR_TOKEN_NOT_RECOGNIZED, "SCARD_W_UNSUPPORTED_CARD", 0x80100065),
    NV_ROW(CKR_USER_PIN_NOT_INITIALIZED, "SCARD_W_CARD_NOT_AUTHENTICATED", 0x8010006F),
    NV_ROW(CKR_BUFFER_TOO_SMALL, "NTE_BUFFER_TOO_SMALL", 0x80090028),
};

#undef NV_ROW

static_assert(std::ranges::adjacent_find(tokenStatuses, std::ranges::greater_equal(),
                                         &TokenStatus::result) == std::end(tokenStatuses),
              "sorted, each result once");

constexpr NamedStatus tokenStatus(CK_RV result)
{
    const auto* row = std::ranges::lower_bound(tokenStatuses, result, {}, &TokenStatus::result);
    const bool found = row != std::end(tokenStatuses) && row->result == result;
    return found ? row->status : otherTokenFailure;
}

// The first failure of an operation, which decides its status. Later ones change nothing.
class TokenFailure {
public:
    // A call of the token failed.
    void note(CK_RV result)
    {
        if (!failed_)
            result_ = result;
        failed_ = true;
    }
    // The token has no key object of the wanted class, type and CKA_ID.
    void noteNoKey()
    {
        noKey_ = noKey_ || !failed_;
        failed_ = true;
    }

    bool failed() const { return failed_; }
    // CKR_OK without a failure, and after one that was not a call.
    CK_RV result() const { return result_; }
    // Meaningful after a failure.
    NamedStatus status() const { return noKey_ ? noKeyFound : tokenStatus(result_); }
    // The token does not give a key object at all, or not without a login.
    bool withholdsKey() const { return noKey_ || (failed_ && result_ == CKR_USER_NOT_LOGGED_IN); }

private:
    bool failed_ = false;
    bool noKey_ = false;
    CK_RV result_ = CKR_OK;
};

}  // namespace NV
