// The text of a log record: message, time stamp, identity, banner. Portable; used by the logger.

#pragma once

#include <chrono>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

#include "logger/logger.h"

namespace NV {

// A point in time in the local calendar.
struct LocalTime {
    std::tm calendar{};
    int milliseconds = 0;
    std::time_t seconds = 0;
};

LocalTime toLocalTime(std::chrono::system_clock::time_point instant);

// Formats like vsnprintf. Returns the length of the text in bytes; a text that does not fit into
// capacity - 1 bytes becomes empty. The caller converts wide texts: "%ls" would depend on the
// locale of the process.
size_t formatMessage(char* buffer, size_t capacity, const char* format, va_list arguments)
    NV_PRINTF(3, 0);

// 64-bit FNV-1a over the four bytes of the thread identifier, lowest first; its low 32 bits.
uint32_t threadHash(uint32_t threadId);

// "[04312,1a2b3c4d]": process identifier and thread hash.
std::string identity(uint32_t processId, uint32_t threadId);

// One line. Line feeds in the message are removed: 2026-03-04 17:05:09.042 TRC [04312,1a2b3c4d]
// message
std::string recordLine(const LocalTime& time, std::string_view tag, std::string_view identity,
                       std::string_view message);

// The seven lines at the beginning of a process's log.
std::string bannerLines(const LocalTime& time, std::string_view identity,
                        const LoggerSettings& settings);

}  // namespace NV
