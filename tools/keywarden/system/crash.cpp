// The filter of unhandled exceptions, and the signals that the C runtime makes of them.

#include "system/crash.h"

#include <windows.h>

#include <atomic>
#include <csignal>
#include <iterator>
#include <string_view>

#include "exit_code.h"

namespace NV::tool {

namespace {

// What the report may use of a stack that is full.
constexpr ULONG stackForReport = 0x10000;

std::atomic<void (*)(const Crash& crash)> currentReport = nullptr;
std::atomic<DWORD> reportingThread = 0;  // 0: none

std::filesystem::path moduleAt(const void* address)
{
    HMODULE module = nullptr;
    if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                                GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            static_cast<const wchar_t*>(address), &module))
        return {};
    wchar_t path[MAX_PATH] = L"";
    GetModuleFileNameW(module, path, static_cast<DWORD>(std::size(path)));
    return path;
}

// No heap and no locks: the first crash may have left them unusable.
void writeConstantLine()
{
    constexpr std::string_view line =
        "keywarden: a crash, and a second one while it was reported.\n";
    DWORD written = 0;
    WriteFile(GetStdHandle(STD_ERROR_HANDLE), line.data(), static_cast<DWORD>(line.size()),
              &written, nullptr);
}

[[noreturn]] void endProcess(const Crash& crash)
{
    DWORD nobody = 0;
    const DWORD self = GetCurrentThreadId();
    if (reportingThread.compare_exchange_strong(nobody, self)) {
        if (const auto report = currentReport.load())
            report(crash);
    } else if (nobody == self) {
        writeConstantLine();
    } else {
        // Another thread reports its crash, and ends the process.
        Sleep(INFINITE);
    }
    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(ExitCode::failed));
    for (;;)
        Sleep(INFINITE);
}

LONG WINAPI filter(EXCEPTION_POINTERS* exception)
{
    const EXCEPTION_RECORD& record = *exception->ExceptionRecord;
    endProcess({record.ExceptionCode, moduleAt(record.ExceptionAddress)});
}

}  // namespace

void onCrash(void (*report)(const Crash& crash))
{
    currentReport = report;
    ULONG guarantee = stackForReport;
    SetThreadStackGuarantee(&guarantee);
    SetUnhandledExceptionFilter(filter);
    // Without a handler, the C runtime passes the exception on to the filter.
    for (const int signal : {SIGSEGV, SIGILL, SIGFPE})
        static_cast<void>(std::signal(signal, SIG_DFL));
}

}  // namespace NV::tool
