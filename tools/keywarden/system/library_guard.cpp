// The watching thread and the report.

#include "system/library_guard.h"

#include <windows.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>

#include <nlohmann/json.hpp>

#include "exit_code.h"
#include "output.h"
#include "printable.h"
#include "system/crash.h"
#include "system/program.h"
#include "system/registration.h"
#include "text.h"

namespace NV::tool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds pollingTime{250};

std::atomic<const char*> callUnderWay = nullptr;
std::atomic<Clock::rep> callBegan = 0;
std::atomic<Clock::rep> longestCall = 0;
std::atomic<bool> asJson = false;

Clock::rep now()
{
    return Clock::now().time_since_epoch().count();
}

// Not through the C library: another thread may hold its locks, and never release them.
void writeTo(DWORD which, const std::string& text)
{
    DWORD written = 0;
    WriteFile(GetStdHandle(which), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

void report(const std::string& reason, const std::string& advice)
{
    const Json document = {{"error", reason}, {"advice", advice}};
    if (asJson)
        writeTo(STD_OUTPUT_HANDLE,
                document.dump(2, ' ', false, Json::error_handler_t::replace) + "\n");
    else
        writeTo(STD_ERROR_HANDLE,
                "keywarden: " + printable(reason + (reason.ends_with('?') ? " " : ". ") + advice) +
                    "\n");
}

std::string duringCall()
{
    const char* call = callUnderWay;
    return call != nullptr ? std::string(" during ") + call : "";
}

bool isOurs(const std::filesystem::path& module)
{
    return module == ownProgram() || module.filename() == registeredImage;
}

void reportCrash(const Crash& crash)
{
    char code[16];
    std::snprintf(code, sizeof code, "0x%08lX", crash.code);
    const bool ours = isOurs(crash.module);
    report(std::string(ours ? "a crash" : "the vendor's library crashed") + duringCall() + " (" +
               code + (crash.module.empty() ? "" : " in " + toUtf8(crash.module)) + ")",
           ours ? "Please report this." : "Run \"keywarden check\".");
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

void endHungProgram(const char* call)
{
    const auto limit =
        std::chrono::duration_cast<std::chrono::seconds>(Clock::duration(longestCall.load()));
    report("the vendor's library did not come back from " + std::string(call) + " within " +
               std::to_string(limit.count()) + " s; is its service running?",
           "Run \"keywarden check\".");
    // A normal end would wait for the library.
    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(ExitCode::failed));
}

void watch()
{
    for (;;) {
        std::this_thread::sleep_for(pollingTime);
        const char* call = callUnderWay;
        if (call == nullptr)
            continue;
        if (showsWindow())
            callBegan = now();
        else if (now() - callBegan > longestCall)
            endHungProgram(call);
    }
}

}  // namespace

void guardLibrary(std::chrono::milliseconds limit, bool json)
{
    longestCall = std::chrono::duration_cast<Clock::duration>(limit).count();
    asJson = json;
    onCrash(reportCrash);
    static const bool watching = [] {
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
