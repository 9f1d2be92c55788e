// The level functions: filter, count, lock, buffer, and the choice of outputs.

#include "logger/logger.h"

#include <windows.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>

#include "base/mutex.h"
#include "base/never_destroyed.h"
#include "base/process_end.h"
#include "base/scope_exit.h"
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

// The records before `lines` that could not be written, as a line; empty if there are none. They count
// as told if the write succeeds.
class LostRecords {
public:
    LostRecords() : count_(loggerLostRecords().exchange(0)) {}
    ~LostRecords() { loggerLostRecords() += count_; }
    LostRecords(const LostRecords&) = delete;
    LostRecords& operator=(const LostRecords&) = delete;

    std::string line(const LocalTime& time, std::string_view who) const
    {
        if (count_ == 0)
            return {};
        return recordLine(time, "WRN", who,
                          "LOGGER: " + std::to_string(count_) + " records could not be written");
    }
    void told() { count_ = 0; }

private:
    uint32_t count_;
};

// Whether all outputs have taken the record.
bool writeRecord(const LoggerSettings& settings, std::string_view tag, std::string_view message)
{
    const LocalTime time = toLocalTime(settings.now());
    const std::string who = identity(GetCurrentProcessId(), GetCurrentThreadId());
    // The record may contain a secret.
    std::string record = recordLine(time, tag, who, message);
    const WipedAtEnd wipedRecord(record);
    LostRecords lost;
    std::string lines = lost.line(time, who);
    if (loggerRecordCount() == 0)
        lines = bannerLines(time, who, settings) + lines;
    lines.reserve(lines.size() + record.size());
    lines += record;
    const WipedAtEnd wipedLines(lines);
    if ((settings.types & logToConsole) != 0)
        std::printf("%s", lines.c_str());
    if ((settings.types & logToFile) != 0 && !settings.store.empty() &&
        !appendToLogFile(settings, time, lines))
        return false;
    lost.told();
    return true;
}

// Whether the lock was taken. False only while the process ends.
bool take(std::unique_lock<Mutex>& guard)
{
    if (processEnds())
        return guard.try_lock();
    guard.lock();
    return true;
}

// Formats and writes under the channel's lock. Whether the record was written.
bool writeMessage(Channel& channel, std::string_view tag, const char* format, va_list arguments)
    NV_PRINTF(3, 0);

bool writeMessage(Channel& channel, std::string_view tag, const char* format, va_list arguments)
{
    std::unique_lock guard(channel.mutex, std::defer_lock);
    if (!take(guard))
        return false;
    const size_t length =
        formatMessage(channel.buffer.data(), channel.buffer.size(), format, arguments);
    // A message that is too long has length 0 and has filled the buffer.
    const WipedAtEnd wiped(channel.buffer.data(), length != 0 ? length : channel.buffer.size());
    const bool written = writeRecord(loggerSettings(), tag, {channel.buffer.data(), length});
    // A banner that was not written comes with the next record.
    if (written || !loggerSettings().survivesFailures)
        ++loggerRecordCount();
    return written;
}

// The two ways of the level functions when a record cannot be written.
void logOrThrow(Channel& channel, std::string_view tag, const char* format, va_list arguments)
    NV_PRINTF(3, 0);
void logOrCount(Channel& channel, std::string_view tag, const char* format,
                va_list arguments) noexcept NV_PRINTF(3, 0);

// Compat: a record that cannot be written vanishes, or fails the operation that it belongs to.
void logOrThrow(Channel& channel, std::string_view tag, const char* format, va_list arguments)
{
    static_cast<void>(writeMessage(channel, tag, format, arguments));
}

void logOrCount(Channel& channel, std::string_view tag, const char* format,
                va_list arguments) noexcept
{
    bool written = false;
    quietly([&] { written = writeMessage(channel, tag, format, arguments); });
    if (!written)
        ++loggerLostRecords();
}

// In the order of LogLevel: what each level adds to the masks of the more severe ones.
constexpr uint32_t levelBits[] = {logMaskSevere,
                                  logMaskError & ~logMaskSevere,
                                  logMaskWarn & ~logMaskError,
                                  logMaskInfo & ~logMaskWarn,
                                  logMaskDebug & ~logMaskInfo,
                                  logMaskTrace & ~logMaskDebug};

bool passesMask(LogLevel level)
{
    const LoggerSettings& settings = loggerSettings();
    if (level != LogLevel::SEV && !settings.gatesAllLevels)
        return true;
    return (settings.levelMask & levelBits[static_cast<int>(level)]) != 0;
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

std::atomic<uint32_t>& loggerLostRecords()
{
    static std::atomic<uint32_t> count{0};
    return count;
}

bool loggerTakes(LogLevel level)
{
    return loggerHasOutput() && passesMask(level);
}

bool beginRecord(LogLevel level)
{
    if (!passesMask(level))
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
        const auto log = loggerSettings().survivesFailures ? logOrCount : logOrThrow;              \
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
