// The operation of the table that is under way on a thread, and the record of its end. An entry point has
// an Operation; what it calls says which key it works with, and which result of the token it met.
//
// The record is marked INF, with the place of the entry point:
//
//   NVKSPSignHash[dll.cpp:214]:DONE, STATUS=0x8009002d, ELAPSED:1960.418(ms), RESULT=CKR_PIN_INCORRECT, KEY=01AB
//
// RESULT stands only after a failure for which the token gave a result: the first one that was noted, by
// name, or in hexadecimal if it has none. KEY stands where there is a key, and last, because its name can
// be any text. Control characters in it are shown as "?", and no more than 256 characters.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "logger/trace.h"

namespace NV {

class Operation {
public:
    // Begins an operation on this thread. One that is under way there waits until it has ended: a
    // window procedure can call the module while the PIN dialog is open. Nothing is kept, and no clock
    // read, if the record would not be written.
    explicit Operation(const Site& site) noexcept;
    ~Operation();
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;

    // Writes the record. Returns the status, a SECURITY_STATUS.
    int32_t end(int32_t status, int line = __builtin_LINE(),
                const char* path = __builtin_FILE()) const noexcept;

private:
    friend void noteKey(std::wstring_view name) noexcept;
    friend void noteResult(uint32_t result, const char* (*textOf)(uint32_t)) noexcept;
    friend void forgetResult() noexcept;

    using Clock = std::chrono::steady_clock;

    Site site_;
    // Null or the time at which it began: whether the record will be written.
    std::optional<Clock::time_point> begun_;
    Operation* outer_ = nullptr;
    std::wstring key_;
    uint32_t result_ = 0;
    const char* (*textOf_)(uint32_t) = nullptr;
};

// The key that the thread's operation works with. Does not count if it is not the first one: a window
// procedure can ask for properties of another key meanwhile.
void noteKey(std::wstring_view name) noexcept;

// A PKCS#11 result of the thread's operation, which does not count if it is 0 or not the first one.
// `textOf` gives a text with the name in parentheses, as returnValueText does.
void noteResult(uint32_t result, const char* (*textOf)(uint32_t)) noexcept;

// The thread's operation begins again: the next result is the first one.
void forgetResult() noexcept;

}  // namespace NV
