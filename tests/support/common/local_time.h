// Points in time by the local calendar, for the logger's clock in tests. Portable.

#pragma once

#include <chrono>
#include <ctime>
#include <stdexcept>

namespace NV::test {

// Months and days count from 1. Throws std::runtime_error when the C library cannot express it.
inline std::chrono::system_clock::time_point localTime(int year, int month, int day, int hour = 12,
                                                       int minute = 0, int second = 0,
                                                       int milliseconds = 0)
{
    std::tm calendar{};
    calendar.tm_year = year - 1900;
    calendar.tm_mon = month - 1;
    calendar.tm_mday = day;
    calendar.tm_hour = hour;
    calendar.tm_min = minute;
    calendar.tm_sec = second;
    calendar.tm_isdst = -1;
    const std::time_t seconds = std::mktime(&calendar);
    if (seconds == -1)
        throw std::runtime_error("no such local time");
    return std::chrono::system_clock::from_time_t(seconds) +
           std::chrono::milliseconds(milliseconds);
}

}  // namespace NV::test
