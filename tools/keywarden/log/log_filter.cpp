// Moments, and the choice of operations.

#include "log/log_filter.h"

#include "whole_number.h"

namespace NV::tool {

namespace {

constexpr std::string_view beginning = "0000-00-00 00:00:00.000";
constexpr std::string_view ending = "0000-00-00 23:59:59.999";
constexpr size_t dayLength = 10;
constexpr size_t minutesLength = 16;

struct Unit {
    char letter;
    int64_t milliseconds;
};
constexpr Unit units[] = {{'s', 1000}, {'m', 60'000}, {'h', 3'600'000}, {'d', 86'400'000}};

std::optional<int64_t> parseAge(std::string_view text)
{
    constexpr uint32_t most = 1'000'000;
    for (const Unit& unit : units) {
        if (!text.ends_with(unit.letter))
            continue;
        const auto count = wholeNumber<uint32_t>(text.substr(0, text.size() - 1));
        return count && *count <= most ? std::optional(*count * unit.milliseconds) : std::nullopt;
    }
    return std::nullopt;
}

bool isBetween(std::string_view text, size_t at, size_t length, std::string_view least,
               std::string_view greatest)
{
    const std::string_view part = text.substr(at, length);
    return part >= least && part <= greatest;
}

// parseTime takes any digits.
bool isPossible(std::string_view time)
{
    return isBetween(time, 5, 2, "01", "12") && isBetween(time, 8, 2, "01", "31") &&
           isBetween(time, 11, 2, "00", "23") && isBetween(time, 14, 2, "00", "59") &&
           isBetween(time, 17, 2, "00", "59");
}

}  // namespace

std::optional<int64_t> parseMoment(std::string_view text, std::string_view now, bool last)
{
    if (const auto age = parseAge(text)) {
        const auto moment = parseTime(now);
        return moment ? std::optional(*moment - *age) : std::nullopt;
    }
    std::string time(text);
    if (time.size() > dayLength && time[dayLength] == 'T')
        time[dayLength] = ' ';
    if (time.size() > 2 && time[2] == ':')
        time = std::string(now.substr(0, dayLength)) + " " + time;
    if (time.size() != dayLength && time.size() != minutesLength &&
        time.size() != minutesLength + 3 && time.size() != beginning.size())
        return std::nullopt;
    time += (last ? ending : beginning).substr(time.size());
    return isPossible(time) ? parseTime(time) : std::nullopt;
}

bool LogFilter::takes(const Operation& found) const
{
    if (!operation.empty() && found.name != operation)
        return false;
    if ((since && found.begun < *since) || (until && found.begun > *until))
        return false;
    if (process && wholeNumber<uint32_t>(found.process) != process)
        return false;
    return !failed || found.failed() || !found.finished;
}

bool LogFilter::takesDay(std::string_view day) const
{
    const auto first = parseTime(std::string(day) + std::string(beginning.substr(dayLength)));
    const auto last = parseTime(std::string(day) + std::string(ending.substr(dayLength)));
    return first && last && (!since || *last >= *since) && (!until || *first <= *until);
}

}  // namespace NV::tool
