// What the commands that use the provider say when the vendor's library crashes, hangs or ends the process:
// this program has loaded it, and would otherwise end without a word, or never.

#pragma once

#include <chrono>

#include "output.h"

namespace NV::tool {

// The name of the call that loads this product's own module: a fault in it is not the library's.
inline constexpr const char* moduleLoading = "LoadLibrary";

// From now on, a crash ends the program with exit code 1 and one line on standard error. So does a call that
// is marked by a GuardedCall, if it ends the process or takes longer than the limit. While the program shows
// a window, it waits for the PIN and has no limit; the limit begins again when the window has closed. With
// --json, the line is the document of a failure, where `out` prints documents at this time.
// Call it again after a module was loaded: that may have replaced the handling of crashes.
void guardLibrary(std::chrono::milliseconds limit, const Output& out);

// Marks a call while the object lives. The name lives as long as the program. Within another one, it
// has no effect.
class GuardedCall {
public:
    explicit GuardedCall(const char* name);
    ~GuardedCall();
    GuardedCall(const GuardedCall&) = delete;
    GuardedCall& operator=(const GuardedCall&) = delete;

private:
    bool outermost_;
};

}  // namespace NV::tool
