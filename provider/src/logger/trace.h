// The trace: the place of a function, the macros that put the place in front of a message, the
// format of argument lines, and the class that writes a function's ENTER, ARG, STATUS and LEAVE
// lines.
//
// A line reads "NV::Provider::init[nvvtoken.cpp:87]:ENTER": the qualified name of the operation, and
// the file and line of the statement that writes it.

#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <type_traits>

#include "base/scope_exit.h"
#include "logger/logger.h"

namespace NV {

// The part of a path after its last separator.
constexpr const char* baseName(const char* path)
{
    const char* name = path;
    for (const char* c = path; *c != '\0'; ++c) {
        if (*c == '/' || *c == '\\')
            name = c + 1;
    }
    return name;
}

consteval const char* baseNameAtCompileTime(const char* path)
{
    return baseName(path);
}

// An operation and the place where it begins. Function and file point into string literals.
struct Site {
    const char* function;
    int functionLength;
    const char* file;
    int line;
};

// Cuts "NV::Provider::init" out of "bool NV::Provider::init(int)", the compiler's text for the
// function. The name ends at the first parenthesis outside template brackets and begins after the
// last blank before it.
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
    return {prettyFunction + begin, end - begin, baseName(path), line};
}

#define NV_HERE NV::makeSite(__PRETTY_FUNCTION__, __FILE__, __LINE__)

// A record: an operation's name, a place, a message. All of these macros evaluate the arguments
// only for a record that is written, because they may be long texts of keys.
#define NV_LINE(level, operation, file, line, format, ...)                                         \
    do {                                                                                           \
        if (NV::beginRecord(NV::LogLevel::level))                                                  \
            NV::level("%.*s[%s:%d]:" format, (operation).functionLength, (operation).function,     \
                      file, line __VA_OPT__(, ) __VA_ARGS__);                                      \
    } while (false)

// Writes a message under an operation's name, with the file and line of this statement:
// NV_UNDER(ERR, operation, "format", ...). For functions that do a step of the operation.
#define NV_UNDER(level, operation, format, ...)                                                    \
    NV_LINE(level, operation, NV::baseNameAtCompileTime(__FILE__), __LINE__,                       \
            format __VA_OPT__(, ) __VA_ARGS__)

// Writes a message under the name of the function that contains it.
#define NV_LOG(level, format, ...)                                                                 \
    do {                                                                                           \
        constexpr NV::Site nvSite = NV_HERE;                                                       \
        NV_UNDER(level, nvSite, format __VA_OPT__(, ) __VA_ARGS__);                                \
    } while (false)

#define NV_SEV(...) NV_LOG(SEV, __VA_ARGS__)
#define NV_ERR(...) NV_LOG(ERR, __VA_ARGS__)
#define NV_WRN(...) NV_LOG(WRN, __VA_ARGS__)
#define NV_INF(...) NV_LOG(INF, __VA_ARGS__)
#define NV_DBG(...) NV_LOG(DBG, __VA_ARGS__)
#define NV_TRC(...) NV_LOG(TRC, __VA_ARGS__)

// The same for clean-up: what the log throws is dropped, so that the work goes on.
#define NV_CLEAN_UP(level, operation, ...)                                                         \
    NV::quietly([&] { NV_UNDER(level, operation, __VA_ARGS__); })

// Handles are numbers that the log shows as pointers.
inline const void* asPointer(uintptr_t handle)
{
    // NOLINTNEXTLINE(performance-no-int-to-ptr): only printed, never dereferenced.
    return reinterpret_cast<const void*>(handle);
}

// The format of an argument: %p, %d, 0x%x, %x, %s for both texts, %d(bytes).
enum class Format : uint8_t { pointer, number, flags, bareFlags, text, wideText, byteCount };

// An argument line: "ARG[2]:cbHashValue=32". The value keeps its type, because the call layer also
// passes it to the library. A text must live until the line is written.
template <typename T>
struct Argument {
    const char* name = nullptr;
    T value{};
    Format format = Format::pointer;
    int line = 0;
    const char* path = nullptr;
    const char* separator = "=";
};

// Descriptors of arguments. They need no casts and no index; the place is that of the statement.

// Pointers, handles and function pointers.
template <typename T>
Argument<T> pointer(const char* name, T value, int line = __builtin_LINE(),
                    const char* path = __builtin_FILE())
{
    return {name, value, Format::pointer, line, path};
}

// Lengths in bytes, counts, identifiers.
template <typename T>
Argument<T> number(const char* name, T value, int line = __builtin_LINE(),
                   const char* path = __builtin_FILE())
{
    return {name, value, Format::number, line, path};
}

template <typename T>
Argument<T> flagBits(const char* name, T value, int line = __builtin_LINE(),
                     const char* path = __builtin_FILE())
{
    return {name, value, Format::flags, line, path};
}

// Zero-terminated; null prints as "(null)".
inline Argument<const char*> text(const char* name, const char* value, int line = __builtin_LINE(),
                                  const char* path = __builtin_FILE())
{
    return {name, value, Format::text, line, path};
}

// Zero-terminated UTF-16, written as UTF-8; null prints as "(null)".
inline Argument<const wchar_t*> text(const char* name, const wchar_t* value,
                                     int line = __builtin_LINE(),
                                     const char* path = __builtin_FILE())
{
    return {name, value, Format::wideText, line, path};
}

// The length of a PIN. Never log its bytes.
template <typename T>
Argument<T> byteCount(const char* name, T value, int line = __builtin_LINE(),
                      const char* path = __builtin_FILE())
{
    return {name, value, Format::byteCount, line, path};
}

// In hexadecimal without "0x".
template <typename T>
Argument<T> bareFlagBits(const char* name, T value, int line = __builtin_LINE(),
                         const char* path = __builtin_FILE())
{
    return {name, value, Format::bareFlags, line, path};
}

// Compat: some functions write blanks around the equals sign.
template <typename T>
Argument<T> spaced(Argument<T> argument)
{
    argument.separator = " = ";
    return argument;
}

// Writes "ARG[index]:name=value" under the operation's name.
void logArgument(LogLevel level, const Site& operation, int index,
                 const Argument<uintptr_t>& argument);

// Writes a line for each argument, numbered from `first`, at the level of the template argument.
template <LogLevel level = LogLevel::TRC, typename... Values>
void logArguments(const Site& operation, int first, const Argument<Values>&... arguments)
{
    const auto bits = [](auto value) -> uintptr_t {
        if constexpr (std::is_pointer_v<decltype(value)>)
            return reinterpret_cast<uintptr_t>(value);
        else
            return static_cast<uintptr_t>(value);
    };
    int index = first;
    (logArgument(level, operation, index++,
                 {arguments.name, bits(arguments.value), arguments.format, arguments.line,
                  arguments.path, arguments.separator}),
     ...);
}

// The monotonic high-resolution clock, read at construction. Only TRC records show these times: if none
// is written, the clock is not read and the time is 0.
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
        loggerTakes(LogLevel::TRC) ? std::optional(Clock::now()) : std::nullopt;
};

// One run of a function. The constructor writes ENTER. Call exactly one of the end functions on
// each way out. There is no destructor, because an exception that leaves the function must write
// nothing: the log then shows ENTER without LEAVE.
//
// The end functions do not throw. The work is done by then, and the caller must get its result: a
// last line that cannot be written is dropped.
class Trace {
public:
    explicit Trace(const Site& site);

    // The same without an exception: for clean-up, which an error of the log must not stop.
    static Trace ofCleanUp(const Site& site) noexcept;

    // Writes a line for each argument: trace.arguments(pointer("phKey", phKey), ...). Indexes
    // continue from one call to the next. A line that is not written also counts.
    template <LogLevel level = LogLevel::TRC, typename... Values>
    void arguments(const Argument<Values>&... arguments)
    {
        logArguments<level>(site_, argument_, arguments...);
        argument_ += static_cast<int>(sizeof...(Values));
    }
    // Skips one index.
    void skipArgument() { ++argument_; }

    // Starts the measured time, usually after the lock is taken.
    void startClock() { clock_ = Stopwatch(); }

    // "LEAVE".
    void leave(int line = __builtin_LINE(), const char* path = __builtin_FILE()) const noexcept;

    // "LEAVE(1)", with the result of a step. Returns it.
    bool leave(bool result, int line = __builtin_LINE(),
               const char* path = __builtin_FILE()) const noexcept;

    // "LEAVE". Returns the value.
    template <typename Value>
    Value leaving(Value value, int line = __builtin_LINE(),
                  const char* path = __builtin_FILE()) const
    {
        leave(line, path);
        return value;
    }

    // "STATUS=0x80090027, ELAPSED:0.012(ms)" and "LEAVE". Returns the status, a SECURITY_STATUS.
    int32_t end(int32_t status, int line = __builtin_LINE(),
                const char* path = __builtin_FILE()) const noexcept;

    // "RESULT=1, ELAPSED:0.012(ms)" and "LEAVE". Returns the result.
    bool endWithResult(bool result, int line = __builtin_LINE(),
                       const char* path = __builtin_FILE()) const noexcept;

private:
    struct Silent {};
    Trace(const Site& site, Silent) noexcept : site_(site) {}

    Site site_;
    int argument_ = 0;
    Stopwatch clock_;
};

}  // namespace NV
