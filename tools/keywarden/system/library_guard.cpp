// The watching thread, the end of the process, and the report.

#include "system/library_guard.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>

#include <nlohmann/json.hpp>

#include "exit_code.h"
#include "printable.h"
#include "system/crash.h"
#include "system/library_fault.h"

namespace NV::tool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds pollingTime{250};

// A call is watched for windows only when it has taken this long, or half of the limit if that is shorter:
// looking for them starts the window system, which most calls do not need. So a dialog that closes before
// counts as time of the library.
constexpr Clock::duration patience = std::chrono::seconds(10);

std::atomic<const char*> callUnderWay = nullptr;
std::atomic<Clock::rep> callBegan = 0;
std::atomic<Clock::rep> longestCall = 0;  // 0: nothing is guarded
std::atomic<bool> asJson = false;
std::atomic<DWORD> reportOutput = STD_ERROR_HANDLE;

Clock::rep now()
{
    return Clock::now().time_since_epoch().count();
}

// Not through the C library: another thread may hold its locks, and never release them.
void writeLine(std::string text)
{
    text += '\n';
    DWORD written = 0;
    WriteFile(GetStdHandle(reportOutput), text.data(), static_cast<DWORD>(text.size()), &written,
              nullptr);
}

void report(const std::string& reason, const std::string& advice)
{
    const Json document = {{"error", reason}, {"advice", advice}};
    if (asJson)
        writeLine(document.dump(2, ' ', false, Json::error_handler_t::replace));
    else
        writeLine("keywarden: " +
                  printable(reason + (reason.ends_with('?') ? " " : ". ") + advice));
}

[[noreturn]] void endProgram()
{
    // A normal end would wait for the library, or for locks of threads that are gone.
    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(ExitCode::failed));
    for (;;)
        Sleep(INFINITE);
}

constexpr const char* checkAdvice = "Run \"keywarden check\".";

std::string duringCall()
{
    const char* call = callUnderWay;
    return call != nullptr ? std::string(" during ") + call : "";
}

void reportCrash(const Crash& crash)
{
    report(crashText(crash.code, crash.module, duringCall()),
           isOurs(crash.module) ? "Please report this." : checkAdvice);
}

// In the thread that ends the process. After a normal end, no call is under way.
void reportExit()
{
    if (longestCall == 0 || callUnderWay == nullptr)
        return;
    report(exitText(duringCall()), checkAdvice);
    endProgram();
}

void NTAPI atProcessDetach(PVOID, DWORD reason, PVOID)
{
    if (reason == DLL_PROCESS_DETACH)
        reportExit();
}

// The system calls these when any thread ends the process; Wine does not.
extern "C" {
__attribute__((section(".CRT$XLC"), used)) const PIMAGE_TLS_CALLBACK nvAtProcessDetach =
    atProcessDetach;
}

// Wine calls this, but only if the thread that ends the process is the one that has called it here.
void watchEndOfProcess()
{
    const DWORD index = FlsAlloc([](PVOID) { reportExit(); });
    static char used;
    FlsSetValue(index, &used);
}

BOOL CALLBACK noteVisibleWindow(HWND window, LPARAM found)
{
    DWORD process = 0;
    GetWindowThreadProcessId(window, &process);
    if (process != GetCurrentProcessId() || !IsWindowVisible(window) ||
        window == GetConsoleWindow())
        return TRUE;
    *reinterpret_cast<bool*>(found) = true;
    return FALSE;
}

bool showsWindow()
{
    bool found = false;
    EnumWindows(noteVisibleWindow, reinterpret_cast<LPARAM>(&found));
    return found;
}

[[noreturn]] void endHungProgram(const std::string& call)
{
    const auto limit =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::duration(longestCall.load()));
    if (call == moduleLoading)
        report("the provider did not load within " + std::to_string(limit.count() / 1000) +
                   " s; does its log folder answer?",
               "If logStore is on a network drive, choose a folder of this computer.");
    else
        report(hangText(call, limit), checkAdvice);
    endProgram();
}

void watch()
{
    for (;;) {
        std::this_thread::sleep_for(pollingTime);
        const char* call = callUnderWay;
        Clock::rep began = callBegan;
        const Clock::rep limit = longestCall;
        if (call == nullptr || now() - began < std::min(limit / 2, patience.count()))
            continue;
        if (showsWindow())
            callBegan.compare_exchange_strong(began, now());
        // Another call may have begun since.
        else if (now() - began > limit && callUnderWay == call && callBegan == began)
            endHungProgram(call);
    }
}

}  // namespace

void guardLibrary(std::chrono::milliseconds limit, const Output& out)
{
    longestCall = std::chrono::duration_cast<Clock::duration>(limit).count();
    asJson = out.json();
    reportOutput =
        out.json() && !out.keepsStandardOutputFree() ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE;
    onCrash(reportCrash);
    static const bool watching = [] {
        watchEndOfProcess();
        std::thread(watch).detach();
        return true;
    }();
    static_cast<void>(watching);
}

GuardedCall::GuardedCall(const char* name) : outermost_(callUnderWay == nullptr)
{
    if (!outermost_)
        return;
    callBegan = now();
    callUnderWay = name;
}

GuardedCall::~GuardedCall()
{
    if (outermost_)
        callUnderWay = nullptr;
}

}  // namespace NV::tool
