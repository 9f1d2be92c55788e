// Builds record lines. Has no state and writes nothing.

#include "logger/logger_record.h"

#include <cstdio>
#include <cstring>

namespace NV {

namespace {

constexpr size_t bannerWidth = 76;

}  // namespace

LocalTime toLocalTime(std::chrono::system_clock::time_point instant)
{
    using namespace std::chrono;
    LocalTime time;
    const auto wholeSeconds = floor<seconds>(instant);
    time.seconds = system_clock::to_time_t(wholeSeconds);
    time.milliseconds =
        static_cast<int>(duration_cast<milliseconds>(instant - wholeSeconds).count());
#if defined(_WIN32)
    if (localtime_s(&time.calendar, &time.seconds) != 0)
        time.calendar = {};
#else
    localtime_r(&time.seconds, &time.calendar);
#endif
    return time;
}

size_t formatMessage(char* buffer, size_t capacity, const char* format, va_list arguments)
{
    const int length = std::vsnprintf(buffer, capacity, format, arguments);
    if (length < 0 || static_cast<size_t>(length) >= capacity) {
        buffer[0] = '\0';
        return 0;
    }
    return static_cast<size_t>(length);
}

uint32_t threadHash(uint32_t threadId)
{
    uint64_t hash = 0xcbf29ce484222325ULL;
    for (int i = 0; i < 4; ++i) {
        hash ^= threadId >> (8 * i) & 0xFF;
        hash *= 0x100000001b3ULL;
    }
    return static_cast<uint32_t>(hash);
}

std::string identity(uint32_t processId, uint32_t threadId)
{
    char text[32];
    std::snprintf(text, sizeof text, "[%05u,%08x]", processId, threadHash(threadId));
    return text;
}

std::string recordLine(const LocalTime& time, std::string_view tag, std::string_view identity,
                       std::string_view message)
{
    char stamp[64];
    const size_t stampLength =
        std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &time.calendar);
    char fraction[16];
    std::snprintf(fraction, sizeof fraction, ".%03d", time.milliseconds);

    std::string line;
    line.reserve(stampLength + tag.size() + identity.size() + message.size() + 16);
    line.append(stamp, stampLength).append(fraction).append(" ").append(tag).append(" ");
    line.append(identity).append(" ").append(message);
    std::erase(line, '\n');
    line.push_back('\n');
    return line;
}

std::string bannerLines(const LocalTime& time, std::string_view identity,
                        const LoggerSettings& settings)
{
    char level[64];
    char types[64];
    std::snprintf(level, sizeof level, "LOGGER():LogLevel = 0x%02x", settings.levelMask);
    std::snprintf(types, sizeof types, "LOGGER():LogTypes = 0x%02x", settings.types);
    const std::string row(bannerWidth, '=');
    const std::string store = "LOGGER():LogStore = " + settings.store;
    const std::string rotate = "LOGGER():LogRotate = " + std::to_string(settings.rotate);

    std::string lines;
    const std::string_view messages[] = {row, "LOGGER():STARTED", level, types, store, rotate, row};
    for (const std::string_view message : messages)
        lines += recordLine(time, "INF", identity, message);
    return lines;
}

}  // namespace NV
