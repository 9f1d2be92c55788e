// What the commands that use the provider say when the vendor's library crashes or hangs: this program has
// loaded it, and would otherwise end without a word, or never.

#pragma once

#include <chrono>

namespace NV::tool {

// From now on, a crash ends the program with one line on standard error, and so does a call that is
// marked by a GuardedCall and takes longer than the limit. Time in which this program shows a window does
// not count: it waits for the PIN. With `json`, the line is the document of a failure on standard output.
// Call it again after a module was loaded: that may have replaced the handling of crashes.
void guardLibrary(std::chrono::milliseconds limit, bool json);

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
