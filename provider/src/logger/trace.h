// How a function speaks in the log: where it stands, the macros that put that in front of a
// message, and the scope that writes a function's ENTER, ARG, STATUS and LEAVE lines.
//
// A line reads "NV::Provider::init[nvvtoken.cpp:87]:ENTER". NV_HERE gives the three values of that
// prefix; the qualified name is cut out of the compiler's own text for the function.

#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>

#include "logger/logger.h"

namespace NV {

// A place in the source. Function and file are parts of string literals and live for ever.
struct Site {
    const char* function;
    int functionLength;
    const char* file;
    int line;

    // The same function and file at another line.
    constexpr Site at(int otherLine) const { return {function, functionLength, file, otherLine}; }
};

// Cuts "NV::Provider::init" out of "bool NV::Provider::init(int)": the name ends at the first
// parenthesis outside template brackets and begins behind the last blank before it.
consteval Site makeSite(const char* prettyFunction, const char* path, int line)
{
    int depth = 0;
    int begin = 0;
    int end = 0;
    for (; prettyFunction[end] != '\0'; ++end) {
        const char c = prettyFunction[end];
        if (c == '<')
            ++depth;
        else if (c == '>')
            --depth;
        else if (depth == 0 && (c == ' ' || c == '*' || c == '&'))
            begin = end + 1;
        else if (depth == 0 && c == '(')
            break;
    }
    const char* file = path;
    for (const char* c = path; *c != '\0'; ++c) {
        if (*c == '/' || *c == '\\')
            file = c + 1;
    }
    return {prettyFunction + begin, end - begin, file, line};
}

#define NV_HERE NV::makeSite(__PRETTY_FUNCTION__, __FILE__, __LINE__)

// A message of one of the six levels under a given place: NV_AT(ERR, site, "format", ...). As with
// all of these macros, the arguments are worked out only for a record that an output takes; they may
// be long texts of keys.
#define NV_AT(level, site, format, ...)                                                            \
    do {                                                                                           \
        if (NV::beginRecord(NV::LogLevel::level))                                                  \
            NV::level("%.*s[%s:%d]:" format, (site).functionLength, (site).function, (site).file,  \
                      (site).line __VA_OPT__(, ) __VA_ARGS__);                                     \
    } while (false)

// A message of a function that does a step of another one of the same file and speaks under its
// name, with the line where it stands itself: NV_AS(ERR, load, "format", ...).
#define NV_AS(level, site, format, ...)                                                            \
    NV_AT(level, (site).at(__LINE__), format __VA_OPT__(, ) __VA_ARGS__)

#define NV_LOG(level, format, ...)                                                                 \
    do {                                                                                           \
        constexpr NV::Site nvSite = NV_HERE;                                                       \
        NV_AT(level, nvSite, format __VA_OPT__(, ) __VA_ARGS__);                                   \
    } while (false)

#define NV_SEV(...) NV_LOG(SEV, __VA_ARGS__)
#define NV_ERR(...) NV_LOG(ERR, __VA_ARGS__)
#define NV_WRN(...) NV_LOG(WRN, __VA_ARGS__)
#define NV_INF(...) NV_LOG(INF, __VA_ARGS__)
#define NV_DBG(...) NV_LOG(DBG, __VA_ARGS__)
#define NV_TRC(...) NV_LOG(TRC, __VA_ARGS__)

// Handles are numbers that the log shows as pointers.
inline const void* asPointer(uintptr_t handle)
{
    // NOLINTNEXTLINE(performance-no-int-to-ptr): only printed, never dereferenced.
    return reinterpret_cast<const void*>(handle);
}

// The monotonic high-resolution clock, read at construction. Only the log shows such times: where no
// output takes records, the clock is left alone and the time is 0.
class Stopwatch {
public:
    double milliseconds() const
    {
        if (!start_)
            return 0;
        const std::chrono::nanoseconds elapsed = Clock::now() - *start_;
        return static_cast<double>(elapsed.count()) / 1000000;
    }

private:
    using Clock = std::chrono::steady_clock;

    std::optional<Clock::time_point> start_ =
        loggerHasOutput() ? std::optional(Clock::now()) : std::nullopt;
};

// One run of a function. The constructor writes ENTER; exactly one of the end functions is called
// on each way out. An exception that unwinds the function writes nothing, so there is no
// destructor: a function that was left by one shows ENTER without LEAVE.
class Trace {
public:
    explicit Trace(const Site& site) : site_(site) { NV_AT(TRC, site_, "ENTER"); }

    // The index of the next argument line, counted from 0; see NV_ARG.
    int nextArgument() { return argument_++; }
    // Leaves one index out.
    void skipArgument() { ++argument_; }

    // Begins the measured time, usually right after the lock was taken.
    void startClock() { clock_ = Stopwatch(); }

    // "LEAVE".
    void leave(int line = __builtin_LINE()) const { NV_AT(TRC, site_.at(line), "LEAVE"); }

    // "LEAVE(1)": with the result of a step that answers yes or no.
    bool leave(bool result, int line = __builtin_LINE()) const
    {
        NV_AT(TRC, site_.at(line), "LEAVE(%d)", result ? 1 : 0);
        return result;
    }

    // "LEAVE"; gives the value back.
    template <typename Value>
    Value leaving(Value value, int line = __builtin_LINE()) const
    {
        leave(line);
        return value;
    }

    // "STATUS=0x80090027, ELAPSED:0.012(ms)" and "LEAVE"; gives the status back.
    template <typename Status>
    Status end(Status status, int line = __builtin_LINE()) const
    {
        NV_AT(TRC, site_.at(line), "STATUS=0x%x, ELAPSED:%.3f(ms)", static_cast<unsigned>(status),
              clock_.milliseconds());
        leave(line);
        return status;
    }

    // "RESULT=1, ELAPSED:0.012(ms)" and "LEAVE"; gives the result back.
    bool endWithResult(bool result, int line = __builtin_LINE()) const
    {
        NV_AT(TRC, site_.at(line), "RESULT=%d, ELAPSED:%.3f(ms)", result ? 1 : 0,
              clock_.milliseconds());
        leave(line);
        return result;
    }

private:
    Site site_;
    int argument_ = 0;
    Stopwatch clock_;
};

// An argument line of a traced function: NV_ARG(trace, "dwFlags=0x%x", dwFlags). One that is not
// written has its index all the same.
#define NV_ARG(trace, format, ...)                                                                 \
    do {                                                                                           \
        const int nvIndex = (trace).nextArgument();                                                \
        NV_TRC("ARG[%d]:" format, nvIndex __VA_OPT__(, ) __VA_ARGS__);                             \
    } while (false)

// Runs clean-up that traces itself, in a destructor: an error of the log must not end the process.
template <typename Work>
void quietly(Work&& work) noexcept
{
    try {
        work();
    } catch (...) {
        // Nothing can be reported where reporting itself failed.
    }
}

}  // namespace NV
