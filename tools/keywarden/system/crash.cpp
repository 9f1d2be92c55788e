// The filter of unhandled exceptions, and the signals that the C runtime makes of them.

#include "system/crash.h"

#include <windows.h>

#include <csignal>
#include <iterator>

#include "exit_code.h"

namespace NV::tool {

namespace {

void (*currentReport)(const Crash& crash) = nullptr;

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

[[noreturn]] void endProcess(const Crash& crash)
{
    // A second crash, in the report, ends the process at once.
    const auto report = currentReport;
    currentReport = nullptr;
    if (report != nullptr)
        report(crash);
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
    SetUnhandledExceptionFilter(filter);
    // Without a handler, the C runtime passes the exception on to the filter.
    for (const int signal : {SIGSEGV, SIGILL, SIGFPE})
        static_cast<void>(std::signal(signal, SIG_DFL));
}

}  // namespace NV::tool
