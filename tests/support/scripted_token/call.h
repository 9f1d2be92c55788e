// The common course of all PKCS#11 functions before their own work: records the call, applies its
// faults, and checks the order of calls. Used by calls_*.cpp and control.cpp.

#pragma once

#include <algorithm>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "line.h"
#include "token.h"

namespace NV::scripted {

// The fault that affects the output of one call, if any.
struct Lie {
    std::optional<test::Fault> fault;
    uint32_t value = 0;

    friend bool operator==(const Lie& lie, test::Fault other) { return lie.fault == other; }
};

struct RecordedCall {
    std::string name;  // with the prefix "list:" when it came through a list of other functions
    std::string line;  // the name and the arguments
    uint32_t thread;
};

struct PlannedFault {
    std::string function;
    test::Fault fault;
    uint32_t value;
    uint32_t nth;  // remaining calls, including this one; 0: every call
};

struct Journal {
    std::vector<RecordedCall> calls;
    std::vector<PlannedFault> faults;
    std::vector<test::StruckFault> struck;
    uint32_t sequenceThread = 0;  // the thread that initialized the library
    uint32_t sequenceViolations = 0;
    uint32_t overlappingCalls = 0;
    uint32_t sessionsFinalized = 0;
    uint32_t loginsFinalized = 0;
    uint32_t inside = 0;  // calls that have not returned yet; survives a reset
};

// The caller holds tokenMutex.
Journal& journal();

// While an object exists, the calls of its thread are recorded with the prefix "list:".
class ListCall {
public:
    ListCall();
    ~ListCall();
    ListCall(const ListCall&) = delete;
    ListCall& operator=(const ListCall&) = delete;
};

// One call, from its entry to its return.
class Arrival {
public:
    // Records the call, waits if a delay is set, throws if an exception is set.
    // `buffer` is the output buffer of the call, or null if it has none.
    Arrival(const char* function, const Line& arguments, const void* buffer);

    const std::optional<CK_RV>& answer() const { return answer_; }
    const std::optional<CK_RV>& answerAfterWork() const { return answerAfterWork_; }
    bool throwsAfterWork() const { return throwsAfterWork_; }
    Lie lie() const { return lie_; }

private:
    struct Inside {
        Inside();
        ~Inside();
        Inside(const Inside&) = delete;
        Inside& operator=(const Inside&) = delete;
    };

    // Holds the token's mutex, if it has one. The call that removes it from the token destroys it.
    class MutexHeld {
    public:
        MutexHeld();
        ~MutexHeld();
        MutexHeld(const MutexHeld&) = delete;
        MutexHeld& operator=(const MutexHeld&) = delete;

    private:
        void* mutex_ = nullptr;
        CK_C_INITIALIZE_ARGS callbacks_{};
    };

    Inside inside_;
    MutexHeld mutexHeld_;
    std::optional<CK_RV> answer_;
    std::optional<CK_RV> answerAfterWork_;
    bool throwsAfterWork_ = false;
    Lie lie_;
};

[[noreturn]] void throwScripted(std::string_view function);

enum class Needs { nothing, initialised };

// Runs `work(token, lie)` unless a fault or the state of the library determines the result. A fault
// can also replace the result of the work.
template <typename Work>
CK_RV serve(const char* function, const Line& arguments, Needs needs, const void* buffer, Work work)
{
    const Arrival arrival{function, arguments, buffer};
    if (arrival.answer())
        return *arrival.answer();
    const std::lock_guard guard{tokenMutex()};
    if (needs == Needs::initialised && !token().initialised)
        return CKR_CRYPTOKI_NOT_INITIALIZED;
    const CK_RV rv = work(token(), arrival.lie());
    if (arrival.throwsAfterWork())
        throwScripted(function);
    return arrival.answerAfterWork().value_or(rv);
}

// The same for a function of a session: `work(token, session, lie)`.
template <typename Work>
CK_RV serveSession(const char* function, CK_SESSION_HANDLE handle, const Line& arguments,
                   const void* buffer, Work work)
{
    return serve(function, arguments, Needs::initialised, buffer, [&](Token& token, Lie lie) {
        Session* session = token.session(handle);
        return session == nullptr ? CKR_SESSION_HANDLE_INVALID : work(token, *session, lie);
    });
}

inline Line sessionLine(CK_SESSION_HANDLE handle)
{
    return Line{}.hex("session", handle);
}

// Returns a list or bytes in the usual way: the count for a null buffer, an error for a buffer that
// is too small. A lie changes what is reported, never what is written.
template <typename Element>
CK_RV give(std::span<const Element> output, Element* buffer, CK_ULONG* count, Lie lie)
{
    if (count == nullptr)
        return CKR_ARGUMENTS_BAD;
    const auto size = static_cast<CK_ULONG>(output.size());
    const CK_ULONG capacity = buffer == nullptr ? 0 : *count;
    const bool claims = lie == test::Fault::claims;
    *count = claims ? lie.value : size;
    if (buffer == nullptr)
        return CKR_OK;
    if (claims) {
        std::copy_n(output.begin(), std::min(size, capacity), buffer);
        return CKR_OK;
    }
    if (lie == test::Fault::bufferTooSmall || capacity < size)
        return CKR_BUFFER_TOO_SMALL;
    std::ranges::copy(output, buffer);
    if (lie == test::Fault::secondCountLarger)
        *count = size + test::kLieExcess;
    if (lie == test::Fault::lengthPastBuffer)
        *count = capacity + test::kLieExcess;
    return CKR_OK;
}

inline CK_RV giveBytes(std::span<const CK_BYTE> output, CK_BYTE* buffer, CK_ULONG* length, Lie lie)
{
    return give<CK_BYTE>(output, buffer, length, lie);
}

}  // namespace NV::scripted
