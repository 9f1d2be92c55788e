// Identifiers of the process and of its threads, and time.

#include <sys/types.h>
#include <unistd.h>
#include <windows.h>

#include <chrono>
#include <thread>

DWORD GetCurrentProcessId()
{
    return static_cast<DWORD>(getpid());
}

DWORD GetCurrentThreadId()
{
    return static_cast<DWORD>(gettid());
}

void Sleep(DWORD milliseconds)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

ULONGLONG GetTickCount64()
{
    const auto time = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<ULONGLONG>(
        std::chrono::duration_cast<std::chrono::milliseconds>(time).count());
}

void GetSystemTimeAsFileTime(FILETIME* time)
{
    constexpr uint64_t from1601To1970 = 116444736000000000;  // 100-nanosecond intervals
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto intervals =
        static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count() /
                              100) +
        from1601To1970;
    *time = {static_cast<DWORD>(intervals), static_cast<DWORD>(intervals >> 32)};
}
