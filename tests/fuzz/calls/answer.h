// What a call of the module answered, what went wrong around it, and what the model expected.

#pragma once

#include "base/cng.h"

#include <cstdint>
#include <optional>

namespace NV::fuzz {

// How far a call reaches.
enum class Reach : uint8_t {
    module,    // not to the token
    sequence,  // to a sequence on the token, which leaves the token as it was
    library,   // opens or frees a provider, which ends the library's use by everybody
};

// What went wrong around the module during a call.
struct Disturbance {
    bool token = false;   // a call of the token failed
    bool lie = false;     // the token told a length that is not true
    bool claim = false;   // a length of any size, also where the module asks for it first
    bool log = false;     // a record could not be written
    bool memory = false;  // an allocation failed
    // The first call of the token that failed wants a login.
    bool wantsLogin = false;
    // What the first call of the token that failed makes of the operation.
    std::optional<SECURITY_STATUS> tokenStatus;

    bool any() const { return token || lie || log || memory; }
};

enum class Left : uint8_t { normally, unknownHandle, logError, noMemory };

struct Answer {
    SECURITY_STATUS status = ERROR_SUCCESS;
    Left left = Left::normally;
    long blocks = 0;  // of memory, allocated and not released by the call
    Disturbance by;

    bool succeeded() const { return left == Left::normally && status == ERROR_SUCCESS; }
};

struct Expected {
    SECURITY_STATUS status = ERROR_SUCCESS;
    bool unknownHandle = false;  // std::out_of_range
    // Of an operation that the certificate's key does if the token wants a login for it.
    std::optional<SECURITY_STATUS> byCertificate = std::nullopt;
};

// Whether the token may have called a failure a success: one that claims a length does not look at the
// buffer's. What the outputs then contain is the token's affair, also when the operation ends otherwise
// because the log or the memory fails after it.
inline bool claimsSuccess(const Answer& answer, const Expected& expected)
{
    return answer.by.claim && (answer.succeeded() || answer.by.log || answer.by.memory) &&
           expected.status == NTE_INTERNAL_ERROR;
}

enum class Pin : uint8_t { right, wrong, empty, tooLong, cancelled, broken };

// What becomes of an operation that asks for the PIN: its end before the token, or nothing.
struct PinOutcome {
    std::optional<SECURITY_STATUS> end;
    bool loginFails = false;
};

}  // namespace NV::fuzz
