// The calling thread's last error, kept over a call of the module.

#pragma once

#include <windows.h>

namespace NV {

// Puts the thread's last error back at the end of the scope. The log and the token change it even
// when all goes well, and callers take what they find for a failure of their own.
class LastErrorKept {
public:
    LastErrorKept() = default;
    ~LastErrorKept() { SetLastError(error_); }
    LastErrorKept(const LastErrorKept&) = delete;
    LastErrorKept& operator=(const LastErrorKept&) = delete;

private:
    DWORD error_ = GetLastError();
};

}  // namespace NV
