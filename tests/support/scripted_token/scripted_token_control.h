// The control interface of the scripted token, which scripted_token.dll exports as
// ScriptedTokenControl in addition to its PKCS#11 functions. Plain C types only, so that library
// and test can be built separately. Tests use the class ScriptedToken (scripted_token.h), not this
// table.

#pragma once

#include "p11/cryptoki.h"

namespace NV::test {

// A fault changes the behavior of one call, or of every call, of one function.
enum class Fault : uint32_t {
    returnValue,       // return `value`, a CK_RV, and do nothing else
    throwException,    // throw std::runtime_error("scripted fault in NAME")
    returnAfterWork,   // do the work of the call, then return `value`
    delay,             // wait `value` milliseconds, then continue as usual
    throwAfterWork,    // do the work of the call, then throw as above
    crash,             // write to an address that is not mapped
    exitProcess,       // end the process with the exit code `value`
    print,             // write a line to standard output, then continue as usual
    valueUnavailable,  // C_GetAttributeValue: CKR_OK, but no value and CK_UNAVAILABLE_INFORMATION
    // A call that gives a list or bytes: CKR_OK, but the count or length reported is `value`, with a
    // buffer and without one.
    claims,
    // The rest apply to, and count, only calls with an output buffer.
    bufferTooSmall,  // return CKR_BUFFER_TOO_SMALL and the needed length, for a buffer of any size
    secondCountLarger,  // CKR_OK, but the count or length reported is larger than the true one
    lengthPastBuffer,   // CKR_OK, but the count or length reported is larger than the buffer
};

// What C_GetFunctionList returns.
enum class ListMode : uint32_t {
    exports,              // the exported functions
    differentInitialize,  // C_Initialize is not the exported function of that name
    allDifferent,         // no entry is the exported function of its name
};

// The function of CK_C_INITIALIZE_ARGS that the control calls.
enum class MutexCallback : uint32_t { create, destroy, lock, unlock };

#pragma pack(push, 8)

// A fault that a call has met.
struct StruckFault {
    const char* function;  // its name; lives as long as the library
    Fault fault;
    uint32_t value;
};

struct TokenState {
    uint32_t initialised;   // 1 between C_Initialize and C_Finalize
    uint32_t openSessions;  // on all slots
    uint32_t userLoggedIn;  // 1 when CKU_USER is logged in to any slot
    uint32_t securityOfficerLoggedIn;
    uint32_t objects;             // token and session objects
    uint32_t sequenceViolations;  // calls of a thread inside another's C_Initialize..C_Finalize
    uint32_t overlappingCalls;    // calls entered during a call of another thread
    uint32_t initArgumentsGiven;  // 1 when the latest C_Initialize had CK_C_INITIALIZE_ARGS
    uint32_t initFlags;           // their flags
    uint32_t callbacksGiven;      // number of the four callbacks that were not null
    uint32_t sessionsFinalized;   // sessions that C_Finalize has found open
    uint32_t loginsFinalized;     // logins that C_Finalize has found
};

struct ScriptedTokenControl {
    void (*reset)();

    // Calls, in order of arrival. Texts are not terminated; at most `capacity` characters are
    // copied, and both functions return the whole length.
    uint32_t (*callCount)();
    uint32_t (*callLine)(uint32_t index, char* text, uint32_t capacity);
    uint32_t (*callName)(uint32_t index, char* text, uint32_t capacity);
    uint32_t (*callThread)(uint32_t index);
    void (*clearCalls)();
    // Off: calls are neither recorded nor rendered. On after a reset.
    void (*setRecording)(uint32_t on);

    // `nth` counts from 1, the next call; 0 means every call. 0 is returned for an unknown name.
    uint32_t (*addFault)(const char* function, Fault fault, uint32_t value, uint32_t nth);
    void (*clearFaults)();
    // The faults that calls have met since the last reset or clearing, in order; at most the first
    // 64. Copies at most `capacity` and returns the whole number.
    uint32_t (*struckFaults)(StruckFault* faults, uint32_t capacity);
    void (*clearStruckFaults)();
    void (*setListMode)(ListMode mode);
    uint32_t (*setListEntryNull)(const char* function);
    void (*setListReadOnly)(uint32_t on);
    uint32_t (*listReadOnly)();

    void (*clearSlots)();
    void (*putSlot)(CK_SLOT_ID slot, CK_FLAGS flags, CK_FLAGS tokenFlags);
    void (*clearObjects)();
    CK_OBJECT_HANDLE (*addObject)(CK_SLOT_ID slot, const CK_ATTRIBUTE* attributes, uint32_t count);
    void (*setSecretPattern)(const CK_BYTE* bytes, uint32_t length);
    void (*setParametersReread)(uint32_t on);
    void (*setHoldsMutex)(uint32_t on);

    void (*state)(TokenState* state);
    // Calls the callback that the latest C_Initialize passed; CKR_GENERAL_ERROR without one.
    CK_RV (*callMutexCallback)(MutexCallback which, void* mutex, void** created);
};

#pragma pack(pop)

using GetScriptedTokenControl = const ScriptedTokenControl* (*)();

}  // namespace NV::test
