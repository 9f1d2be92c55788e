// A pipe from a child process.

#pragma once

#include <windows.h>

#include <memory>
#include <string>

namespace NV::tool {

struct HandleCloser {
    using pointer = HANDLE;
    void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using OwnedHandle = std::unique_ptr<HANDLE, HandleCloser>;

// A child inherits the end that is written to.
struct Pipe {
    OwnedHandle read;
    OwnedHandle write;
};

// Throws Failure.
Pipe makePipe();

// An input at its end, which a child inherits.
OwnedHandle openNull();

// What has arrived, without waiting for more; empty if nothing has. At most 64 KB, so that a program that
// never stops writing does not keep the caller from looking at the time.
std::string readAvailable(const OwnedHandle& pipe);

}  // namespace NV::tool
