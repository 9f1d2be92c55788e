// Pipes of Windows.

#include "system/child_pipe.h"

#include <algorithm>

#include "failure.h"
#include "text.h"

namespace NV::tool {

Pipe makePipe()
{
    SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
    HANDLE read = nullptr;
    HANDLE write = nullptr;
    if (!CreatePipe(&read, &write, &inheritable, 0))
        throw Failure("no pipe to a process of its own can be made: " + errorText(GetLastError()));
    SetHandleInformation(read, HANDLE_FLAG_INHERIT, 0);
    return {OwnedHandle(read), OwnedHandle(write)};
}

OwnedHandle openNull()
{
    SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
    return OwnedHandle(CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                   &inheritable, OPEN_EXISTING, 0, nullptr));
}

std::string readAvailable(const OwnedHandle& pipe)
{
    constexpr DWORD most = 0x10000;
    DWORD available = 0;
    if (!PeekNamedPipe(pipe.get(), nullptr, 0, nullptr, &available, nullptr) || available == 0)
        return {};
    std::string text(std::min(available, most), '\0');
    DWORD size = 0;
    if (!ReadFile(pipe.get(), text.data(), static_cast<DWORD>(text.size()), &size, nullptr))
        return {};
    text.resize(size);
    return text;
}

}  // namespace NV::tool
