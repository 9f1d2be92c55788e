// Names and ages of dated log files.

#include "logger/logger_rotation.h"

#include <algorithm>

namespace NV {

namespace {

constexpr size_t dateLength = 8;

bool isDigits(std::wstring_view text)
{
    return std::ranges::all_of(text, [](wchar_t c) { return c >= L'0' && c <= L'9'; });
}

int number(std::wstring_view digits)
{
    int value = 0;
    for (const wchar_t c : digits)
        value = value * 10 + (c - L'0');
    return value;
}

// 00:00:00 local time on the date. A day or month out of range continues in the next one.
std::time_t midnight(std::wstring_view date)
{
    std::tm day{};
    day.tm_year = number(date.substr(0, 4)) - 1900;
    day.tm_mon = number(date.substr(4, 2)) - 1;
    day.tm_mday = number(date.substr(6, 2));
    day.tm_isdst = -1;
    return std::mktime(&day);
}

}  // namespace

FileName splitFileName(std::wstring_view name)
{
    const size_t dot = name.rfind(L'.');
    if (dot == std::wstring_view::npos || dot == 0)
        return {name, {}};
    return {name.substr(0, dot), name.substr(dot)};
}

std::wstring datedFileName(const FileName& configured, const std::tm& day)
{
    wchar_t date[16];
    const size_t length = std::wcsftime(date, std::size(date), L"%Y%m%d", &day);
    std::wstring name(configured.stem);
    name.append(L"-").append(date, length).append(configured.extension);
    return name;
}

bool isOutdated(std::wstring_view name, const FileName& configured, std::time_t now,
                int32_t daysKept)
{
    // First the test that most other files fail: this runs for every entry with every record.
    if (!name.starts_with(configured.stem))
        return false;
    const FileName parts = splitFileName(name);
    if (parts.extension != L".log" || parts.stem.size() <= configured.stem.size())
        return false;
    // Compat: any character may be between the stem and the date.
    const std::wstring_view date = parts.stem.substr(configured.stem.size() + 1);
    if (date.size() < dateLength || !isDigits(date))
        return false;
    const double days = std::difftime(now, midnight(date)) / 60 / 60 / 24;
    return static_cast<int64_t>(days) > daysKept;
}

}  // namespace NV
