// The table of faults: every PKCS#11 call that an operation was seen to make, with every fault that
// the call can show. Used by all tests of this folder.

#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "scripted_token.h"

namespace NV::test {

// One call of a recorded sequence.
struct SequenceCall {
    std::string function;
    uint32_t occurrence;  // among the calls of this function, from 1
    uint32_t withBuffer;  // among those of them that give an output buffer; 0: this one gives none
};
using Sequence = std::vector<SequenceCall>;

// Of the lines that the scripted token recorded.
Sequence sequenceOf(const std::vector<std::string>& lines);
// "C_Initialize C_OpenSession ..."
std::string namesOf(const Sequence& sequence);

enum class FaultKind {
    code,               // the call answers `code` and does nothing
    exception,          // an exception leaves it
    nullEntry,          // the library's list has no such function, for any call of it
    valueUnavailable,   // of C_GetAttributeValue: CKR_OK, but the value is unavailable
    bufferTooSmall,     // CKR_BUFFER_TOO_SMALL with the length needed
    secondCountLarger,  // a count or length that exceeds the true one
    lengthPastBuffer,   // a count or length that exceeds the buffer
};

// Results that only modern tells apart.
inline constexpr CK_RV moreResults[] = {
    CKR_CRYPTOKI_NOT_INITIALIZED,
    CKR_USER_ALREADY_LOGGED_IN,
    CKR_PIN_INCORRECT,
    CKR_PIN_INVALID,
    CKR_PIN_LEN_RANGE,
    CKR_PIN_EXPIRED,
    CKR_USER_PIN_NOT_INITIALIZED,
    CKR_FUNCTION_CANCELED,
    CKR_DATA_LEN_RANGE,
    CKR_SLOT_ID_INVALID,
    CKR_TOKEN_NOT_RECOGNIZED,
    CKR_MECHANISM_INVALID,
    CKR_MECHANISM_PARAM_INVALID,
    CKR_KEY_FUNCTION_NOT_PERMITTED,
    CKR_FUNCTION_NOT_SUPPORTED,
    CKR_HOST_MEMORY,
    CKR_DEVICE_MEMORY,
};

struct FaultCase {
    size_t call = 0;  // its place in the sequence; of a null entry the function's first one
    SequenceCall target;
    FaultKind kind = FaultKind::code;
    CK_RV code = CKR_OK;

    std::string name() const;  // "C_GetAttributeValue, call 2: CKR_DEVICE_REMOVED"
    bool isLie() const
    {
        return kind == FaultKind::secondCountLarger || kind == FaultKind::lengthPastBuffer;
    }
    // C_Initialize that says the library is in use. It then is: the call has initialised it.
    bool saysAlreadyInitialized() const
    {
        return target.function == "C_Initialize" && kind == FaultKind::code &&
               code == CKR_CRYPTOKI_ALREADY_INITIALIZED;
    }
    // C_Login that says that there is a login. There is one then.
    bool saysAlreadyLoggedIn() const
    {
        return target.function == "C_Login" && kind == FaultKind::code &&
               code == CKR_USER_ALREADY_LOGGED_IN;
    }
};

// Every call with every code and with an exception; what concerns an output, with the calls that
// give a buffer for one; a null entry for each function that is called by way of the list. `more` are
// codes besides the nine that all matrices have, of moreResults.
std::vector<FaultCase> casesOf(const Sequence& sequence, std::span<const CK_RV> more = {});

// Lets the next run of the sequence meet the fault. A null entry shows in lists that are fetched
// after this.
void arm(ScriptedToken& token, const FaultCase& fault);

// The one list that the library hands out, made afresh with the null entries set so far.
CK_FUNCTION_LIST& remadeFunctionList(const ScriptedToken& token);

}  // namespace NV::test
