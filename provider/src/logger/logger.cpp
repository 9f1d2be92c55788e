// The level functions: filter, count, lock, buffer, and the choice of outputs.

#include "logger/logger.h"

#include <windows.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string_view>

#include "base/mutex.h"
#include "base/never_destroyed.h"
#include "base/process_end.h"
#include "base/secret.h"
#include "logger/logger_file.h"
#include "logger/logger_record.h"

namespace NV {

namespace {

// The lock and the message buffer that a group of levels shares.
struct Channel {
    Mutex mutex;
    std::array<char, 65536> buffer{};
};

// SEV has its own channel, so that a crash report does not wait for another record.
Channel severeChannel{Mutex(LockRank::severeLog)};
Channel ordinaryChannel{Mutex(LockRank::log)};

void writeRecord(const LoggerSettings& settings, std::string_view tag, std::string_view message)
{
    const LocalTime time = toLocalTime(settings.now());
    const std::string who = identity(GetCurrentProcessId(), GetCurrentThreadId());
    // The record may contain a secret.
    std::string record = recordLine(time, tag, who, message);
    const WipedAtEnd wipedRecord(record);
    std::string lines;
    if (loggerRecordCount() == 0)
        lines = bannerLines(time, who, settings);
    lines.reserve(lines.size() + record.size());
    lines += record;
    const WipedAtEnd wipedLines(lines);
    if ((settings.types & logToConsole) != 0)
        std::printf("%s", lines.c_str());
    if ((settings.types & logToFile) != 0 && !settings.store.empty())
        appendToLogFile(settings, time, lines);
}

// Whether the lock was taken. False only while the process ends.
bool take(std::unique_lock<Mutex>& guard)
{
    if (processEnds())
        return guard.try_lock();
    guard.lock();
    return true;
}

// Formats and writes under the channel's lock.
void log(Channel& channel, std::string_view tag, const char* format, va_list arguments)
    NV_PRINTF(3, 0);

void log(Channel& channel, std::string_view tag, const char* format, va_list arguments)
{
    std::unique_lock guard(channel.mutex, std::defer_lock);
    if (!take(guard))
        return;
    const size_t length =
        formatMessage(channel.buffer.data(), channel.buffer.size(), format, arguments);
    // A message that is too long has length 0 and has filled the buffer.
    const WipedAtEnd wiped(channel.buffer.data(), length != 0 ? length : channel.buffer.size());
    writeRecord(loggerSettings(), tag, {channel.buffer.data(), length});
    ++loggerRecordCount();
}

// Ends the use of an argument list on every path out of a level function.
struct ArgumentListEnd {
    va_list& arguments;
    explicit ArgumentListEnd(va_list& list) : arguments(list) {}
    ~ArgumentListEnd() { va_end(arguments); }
    ArgumentListEnd(const ArgumentListEnd&) = delete;
    ArgumentListEnd& operator=(const ArgumentListEnd&) = delete;
};

}  // namespace

LoggerSettings& loggerSettings()
{
    static NeverDestroyed<LoggerSettings> settings;
    return *settings;
}

bool loggerHasOutput()
{
    const LoggerSettings& settings = loggerSettings();
    return (settings.types & logToConsole) != 0 ||
           ((settings.types & logToFile) != 0 && !settings.store.empty());
}

std::atomic<uint32_t>& loggerRecordCount()
{
    static std::atomic<uint32_t> count{0};
    return count;
}

bool beginRecord(LogLevel level)
{
    if (level == LogLevel::SEV && (loggerSettings().levelMask & logMaskSevere) == 0)
        return false;
    if (loggerHasOutput())
        return true;
    // No lock: the counter is atomic, because both channels use it, and a record that is not
    // written shares nothing else.
    ++loggerRecordCount();
    return false;
}

#define NV_LEVEL(level, channel)                                                                   \
    void level(const char* format, ...)                                                            \
    {                                                                                              \
        if (!beginRecord(LogLevel::level))                                                         \
            return;                                                                                \
        va_list arguments;                                                                         \
        va_start(arguments, format);                                                               \
        const ArgumentListEnd end(arguments);                                                      \
        log(channel, #level, format, arguments);                                                   \
    }

NV_LEVEL(SEV, severeChannel)
NV_LEVEL(ERR, ordinaryChannel)
NV_LEVEL(WRN, ordinaryChannel)
NV_LEVEL(INF, ordinaryChannel)
NV_LEVEL(DBG, ordinaryChannel)
NV_LEVEL(TRC, ordinaryChannel)

#undef NV_LEVEL

}  // namespace NV
