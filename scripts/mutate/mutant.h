// The switch of the mutation check, put in front of every source of the mutated copy. All changes
// are compiled into one build; the environment says which one is in force:
//   NV_MUTANT=17         change 17
//   NV_MUTANT_RECORD=X   none; the numbers of the changes that were reached go to files X.*
// It leaves the last error as it was, and takes nothing from the heap, because tests look at both.

#pragma once

#ifdef _WIN32

// As windows.h has them; including that would bring its macros into every source.
extern "C" {
__declspec(dllimport) unsigned long GetEnvironmentVariableA(const char*, char*, unsigned long);
__declspec(dllimport) unsigned long GetLastError();
__declspec(dllimport) void SetLastError(unsigned long);
__declspec(dllimport) unsigned long GetCurrentProcessId();
__declspec(dllimport) void* CreateFileA(const char*, unsigned long, unsigned long,
                                        struct _SECURITY_ATTRIBUTES*, unsigned long, unsigned long,
                                        void*);
__declspec(dllimport) int WriteFile(void*, const void*, unsigned long, unsigned long*,
                                    struct _OVERLAPPED*);
__declspec(dllimport) int CloseHandle(void*);
}

namespace nvMutation {

// 0 if there is none of that name, or if it does not fit.
inline unsigned long environment(const char* name, char* buffer, unsigned long size)
{
    const unsigned long length = GetEnvironmentVariableA(name, buffer, size);
    return length < size ? length : 0;
}

inline unsigned long processId()
{
    return GetCurrentProcessId();
}

inline void append(const char* path, const char* line, unsigned long length)
{
    // Append, shared with readers and writers, opened always.
    void* file = CreateFileA(path, 4, 3, nullptr, 4, 0x80, nullptr);
    WriteFile(file, line, length, &length, nullptr);
    CloseHandle(file);
}

struct LastErrorKept {
    const unsigned long error = GetLastError();
    ~LastErrorKept() { SetLastError(error); }
};

}  // namespace nvMutation

#else

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace nvMutation {

inline unsigned long environment(const char* name, char* buffer, unsigned long size)
{
    const char* value = std::getenv(name);
    const unsigned long length = value != nullptr ? std::strlen(value) : 0;
    if (length == 0 || length >= size)
        return 0;
    std::memcpy(buffer, value, length + 1);
    return length;
}

inline unsigned long processId()
{
    return static_cast<unsigned long>(::getpid());
}

inline void append(const char* path, const char* line, unsigned long length)
{
    const int file = ::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    [[maybe_unused]] const auto written = ::write(file, line, length);
    ::close(file);
}

// The last error of the stand-in for Windows is a variable of its own, which nothing here changes.
struct LastErrorKept {
    const int error = errno;
    ~LastErrorKept() { errno = error; }
};

}  // namespace nvMutation

#endif

namespace nvMutation {

struct Settings {
    int chosen = 0;
    bool recording = false;
    char path[512];
};

inline bool reached[4096];

inline Settings readSettings()
{
    Settings settings;
    char number[16];
    if (environment("NV_MUTANT", number, sizeof number) != 0) {
        for (const char* digit = number; *digit != '\0'; ++digit)
            settings.chosen = settings.chosen * 10 + (*digit - '0');
    }
    unsigned long length = environment("NV_MUTANT_RECORD", settings.path, 460);
    if (length != 0) {
        settings.recording = true;
        // A file for each process and for each module in it: nobody else appends to it.
        settings.path[length++] = '.';
        const auto address = reinterpret_cast<unsigned long long>(&reached);
        const unsigned long long parts[] = {processId(), address >> 4};
        for (const unsigned long long part : parts) {
            for (int shift = 44; shift >= 0; shift -= 4)
                settings.path[length++] = static_cast<char>('a' + (part >> shift & 15));
        }
        settings.path[length] = '\0';
    }
    return settings;
}

inline void record(const Settings& settings, int number)
{
    char line[8];
    unsigned long length = 0;
    for (int unit = 1000; unit > 0; unit /= 10)
        line[length++] = static_cast<char>('0' + number / unit % 10);
    line[length++] = '\n';
    append(settings.path, line, length);
}

inline bool isChosen(int number)
{
    const LastErrorKept kept;
    static const Settings settings = readSettings();
    if (settings.recording && !reached[number]) {
        reached[number] = true;
        record(settings, number);
    }
    return settings.chosen == number;
}

}  // namespace nvMutation

inline bool nvMutant(int number)
{
    return nvMutation::isChosen(number);
}
