// Reading what a program writes, and looking at the time.

#include "prove/program_output.h"

#include <windows.h>

#include "failure.h"
#include "system/child_pipe.h"
#include "text.h"

namespace NV::tool {

namespace {

using ProgramClock = std::chrono::steady_clock;

constexpr DWORD pollMilliseconds = 20;

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

void readArrived(const OwnedHandle& pipe, std::string& text)
{
    std::string piece = readAvailable(pipe);
    std::erase(piece, '\r');
    text += piece;
}

}  // namespace

ProgramOutput outputOfProgram(const std::filesystem::path& program, std::wstring commandLine,
                              std::chrono::milliseconds limit)
{
    Pipe pipe = makePipe();
    const OwnedHandle input = openNull();
    STARTUPINFOW start{};
    start.cb = sizeof start;
    start.dwFlags = STARTF_USESTDHANDLES;
    start.hStdInput = input.get();
    start.hStdOutput = pipe.write.get();
    start.hStdError = pipe.write.get();
    PROCESS_INFORMATION started{};
    if (!CreateProcessW(program.c_str(), commandLine.data(), nullptr, nullptr, TRUE,
                        CREATE_NO_WINDOW, nullptr, nullptr, &start, &started))
        throw Failure(toUtf8(program) + " does not start: " + errorText(GetLastError()));
    const OwnedHandle process(started.hProcess);
    const OwnedHandle thread(started.hThread);
    pipe.write.reset();

    ProgramOutput output;
    auto begun = ProgramClock::now();
    while (!output.ended && ProgramClock::now() - begun < limit) {
        output.ended = WaitForSingleObject(started.hProcess, pollMilliseconds) == WAIT_OBJECT_0;
        readArrived(pipe.read, output.text);
        if (showsWindow(started.dwProcessId))
            begun = ProgramClock::now();
    }
    for (size_t before = 0; output.ended && before != output.text.size();) {
        before = output.text.size();
        readArrived(pipe.read, output.text);
    }
    if (!output.ended)
        TerminateProcess(started.hProcess, 1);
    return output;
}

}  // namespace NV::tool
