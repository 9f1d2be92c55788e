// A pipe, and looking at the time.

#include "prove/program_output.h"

#include <windows.h>

#include <memory>

#include "failure.h"
#include "text.h"

namespace NV::tool {

namespace {

using ProgramClock = std::chrono::steady_clock;

constexpr DWORD pollMilliseconds = 20;

struct ProgramHandleCloser {
    using pointer = HANDLE;
    void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using ProgramHandle = std::unique_ptr<HANDLE, ProgramHandleCloser>;

struct WindowSearch {
    DWORD process;
    bool found;
};

BOOL CALLBACK noteWindow(HWND window, LPARAM parameter)
{
    auto& search = *reinterpret_cast<WindowSearch*>(parameter);
    DWORD process = 0;
    GetWindowThreadProcessId(window, &process);
    search.found = search.found || (process == search.process && IsWindowVisible(window) != FALSE);
    return search.found ? FALSE : TRUE;
}

bool showsWindow(DWORD process)
{
    WindowSearch search{process, false};
    EnumWindows(noteWindow, reinterpret_cast<LPARAM>(&search));
    return search.found;
}

// Appends what has arrived, without waiting for more.
void readArrived(HANDLE pipe, std::string& text)
{
    DWORD available = 0;
    while (PeekNamedPipe(pipe, nullptr, 0, nullptr, &available, nullptr) && available > 0) {
        std::string piece(available, '\0');
        DWORD size = 0;
        if (!ReadFile(pipe, piece.data(), available, &size, nullptr))
            return;
        piece.resize(size);
        std::erase(piece, '\r');
        text += piece;
    }
}

}  // namespace

ProgramOutput outputOfProgram(const std::filesystem::path& program, std::wstring commandLine,
                              std::chrono::milliseconds limit)
{
    SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
    HANDLE readEnd = nullptr;
    HANDLE writeEnd = nullptr;
    if (!CreatePipe(&readEnd, &writeEnd, &inheritable, 0))
        throw Failure("CreatePipe failed: " + errorText(GetLastError()));
    const ProgramHandle read(readEnd);
    ProgramHandle write(writeEnd);
    SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
    const ProgramHandle input(CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                          &inheritable, OPEN_EXISTING, 0, nullptr));
    STARTUPINFOW start{};
    start.cb = sizeof start;
    start.dwFlags = STARTF_USESTDHANDLES;
    start.hStdInput = input.get();
    start.hStdOutput = writeEnd;
    start.hStdError = writeEnd;
    PROCESS_INFORMATION started{};
    if (!CreateProcessW(program.c_str(), commandLine.data(), nullptr, nullptr, TRUE,
                        CREATE_NO_WINDOW, nullptr, nullptr, &start, &started))
        throw Failure(toUtf8(program) + " does not start: " + errorText(GetLastError()));
    const ProgramHandle process(started.hProcess);
    const ProgramHandle thread(started.hThread);
    write.reset();

    ProgramOutput output;
    auto begun = ProgramClock::now();
    while (!output.ended && ProgramClock::now() - begun < limit) {
        output.ended = WaitForSingleObject(started.hProcess, pollMilliseconds) == WAIT_OBJECT_0;
        readArrived(readEnd, output.text);
        if (showsWindow(started.dwProcessId))
            begun = ProgramClock::now();
    }
    if (!output.ended)
        TerminateProcess(started.hProcess, 1);
    return output;
}

}  // namespace NV::tool
