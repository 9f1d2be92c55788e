// The names of the files in a log folder, and which of them are old. The input: the days to keep,
// the time in days since 1970 and in seconds of the day, the configured name (empty: the default)
// and, on the next line, the name of a file.

#include <ctime>
#include <optional>
#include <string_view>

#include "logger/logger_rotation.h"
#include "target.h"

namespace NV::fuzz {

namespace {

constexpr int64_t secondsOfADay = 86400;

// Bytes above ASCII become U+0600 and up, so that digits of another script are among them.
std::wstring widen(const std::string& text)
{
    std::wstring wide;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        wide.push_back(byte < 0x80 ? byte : byte - 0x80 + 0x600);
    }
    return wide;
}

void checkSplit(std::wstring_view name)
{
    const FileName parts = splitFileName(name);
    HOLDS(parts.stem.size() + parts.extension.size() == name.size());
    HOLDS(name.starts_with(parts.stem) && name.ends_with(parts.extension));
    const size_t dots = static_cast<size_t>(std::count(name.begin(), name.end(), L'.'));
    if (parts.extension.empty()) {
        HOLDS(dots == 0 || (dots == 1 && name.front() == L'.'));
        return;
    }
    HOLDS(parts.extension.front() == L'.' && !parts.stem.empty());
    HOLDS(std::count(parts.extension.begin(), parts.extension.end(), L'.') == 1);
}

// Days from 1970-01-01 to a date of the Gregorian calendar, with years that begin in March, so that
// the leap day ends the year. The month may be outside 1 to 12, and the day outside its month.
int64_t daysSince1970(int64_t year, int64_t month, int64_t day)
{
    const int64_t months = year * 12 + month - 3;
    const int64_t marchYear = months >= 0 ? months / 12 : (months - 11) / 12;
    const int64_t fromMarch = months - marchYear * 12;
    const auto floored = [marchYear](int64_t n) {
        return marchYear >= 0 ? marchYear / n : (marchYear - n + 1) / n;
    };
    const int64_t leapDays = floored(4) - floored(100) + floored(400);
    return marchYear * 365 + leapDays + (fromMarch * 153 + 2) / 5 + day - 1 - 719468;
}

// The digits of the date in a file's name; nothing when it is not a dated file of the configured
// name.
std::optional<std::wstring> dateIn(const std::wstring& name, const std::wstring& stem)
{
    constexpr std::wstring_view extension = L".log";
    if (!name.ends_with(extension) || name.size() == extension.size())
        return std::nullopt;
    const std::wstring own = name.substr(0, name.size() - extension.size());
    if (own.size() <= stem.size() || own.compare(0, stem.size(), stem) != 0)
        return std::nullopt;
    const std::wstring digits = own.substr(stem.size() + 1);
    if (digits.size() < 8 || digits.find_first_not_of(L"0123456789") != std::wstring::npos)
        return std::nullopt;
    return digits;
}

bool expectedOutdated(const std::wstring& name, const FileName& configured, int64_t now,
                      int32_t daysKept)
{
    const auto digits = dateIn(name, std::wstring(configured.stem));
    if (!digits)
        return false;
    const int64_t date =
        daysSince1970(std::stol(digits->substr(0, 4)), std::stol(digits->substr(4, 2)),
                      std::stol(digits->substr(6, 2)));
    return (now - date * secondsOfADay) / secondsOfADay > daysKept;
}

// The current file has today's date, and is deleted when that date is old enough.
void checkToday(const FileName& configured, std::time_t now, int32_t daysKept)
{
    std::tm today{};
    HOLDS(gmtime_r(&now, &today) != nullptr);
    const std::wstring name = datedFileName(configured, today);
    HOLDS(name.size() == configured.stem.size() + 9 + configured.extension.size());
    HOLDS(name.starts_with(configured.stem) && name.ends_with(configured.extension));
    if (configured.extension != L".log")
        return;
    HOLDS(isOutdated(name, configured, now, daysKept) == (0 > daysKept));
    for (int32_t days = 0; days < 40; ++days)
        HOLDS(isOutdated(name, configured, now + days * secondsOfADay, daysKept) ==
              (days > daysKept));
}

}  // namespace

}  // namespace NV::fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***);

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // Local time without gaps, so that each day has all its seconds.
    setenv("TZ", "UTC0", 1);
    tzset();
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace NV::fuzz;
    Input input(data, size);
    const auto daysKept = static_cast<int32_t>(input.number(2)) - 100;
    // Up to the year 9999: the date has four digits for its year.
    const int64_t day = input.number(3) % 2932896;
    const auto now = static_cast<std::time_t>(day * secondsOfADay + input.number(2));
    const std::wstring line = widen(input.line());
    const std::wstring configuredName = line.empty() ? L"nvksprovider.log" : line;
    const std::wstring name = widen(input.restAsText());

    checkSplit(configuredName);
    checkSplit(name);
    const NV::FileName configured = NV::splitFileName(configuredName);
    HOLDS(NV::isOutdated(name, configured, now, daysKept) ==
          expectedOutdated(name, configured, now, daysKept));
    checkToday(configured, now, daysKept);
    return 0;
}
