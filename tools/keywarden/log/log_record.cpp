// Splitting a line of the log into its fields.

#include "log/log_record.h"

#include <algorithm>
#include <cctype>
#include <charconv>

namespace NV::tool {

namespace {

// "2026-03-04 17:05:09.042 TRC [04312,1a2b3c4d] message"; each 0 of the form is any digit.
constexpr std::string_view timeForm = "0000-00-00 00:00:00.000";
constexpr std::string_view levels[] = {"TRC", "DBG", "INF", "WRN", "ERR", "SEV"};

// Beginnings of messages that contain a secret.
constexpr std::string_view secretMessages[] = {"Agreed SharedSecret(", "Retrieved SharedSecret(",
                                               "KDFInputData(",        "HMAC_KEY(",
                                               "Derived Key(",         "Entered Pin="};

bool isDigit(char c)
{
    return std::isdigit(static_cast<unsigned char>(c)) != 0;
}

bool isTime(std::string_view text)
{
    return text.size() == timeForm.size() &&
           std::ranges::equal(text, timeForm, [](char c, char form) {
               return form == '0' ? isDigit(c) : c == form;
           });
}

int64_t numberAt(std::string_view text, size_t position, size_t length)
{
    int64_t number = 0;
    std::from_chars(text.data() + position, text.data() + position + length, number);
    return number;
}

// Days since 1970-01-01 of the proleptic Gregorian calendar.
int64_t dayNumber(int64_t year, int64_t month, int64_t day)
{
    const int64_t y = month <= 2 ? year - 1 : year;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const int64_t yearOfEra = y - era * 400;
    const int64_t dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    return era * 146097 + yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear - 719468;
}

int64_t toMilliseconds(std::string_view time)
{
    const int64_t days =
        dayNumber(numberAt(time, 0, 4), numberAt(time, 5, 2), numberAt(time, 8, 2));
    const int64_t seconds =
        ((days * 24 + numberAt(time, 11, 2)) * 60 + numberAt(time, 14, 2)) * 60 +
        numberAt(time, 17, 2);
    return seconds * 1000 + numberAt(time, 20, 3);
}

// Removes the text up to the separator and the separator from the front, and returns the text. Empty if
// there is no separator.
std::optional<std::string_view> takeTo(std::string_view& text, std::string_view separator)
{
    const size_t end = text.find(separator);
    if (end == std::string_view::npos)
        return std::nullopt;
    const std::string_view taken = text.substr(0, end);
    text.remove_prefix(end + separator.size());
    return taken;
}

// Splits "NV::Provider::init[nvvtoken.cpp:87]:ENTER" into function, place and message. Not every record
// has a function and a place.
void splitMessage(std::string_view text, LogRecord& record)
{
    std::string_view rest = text;
    const auto function = takeTo(rest, "[");
    const auto place = function ? takeTo(rest, "]:") : std::nullopt;
    const bool placed = place && !function->empty() && place->find(':') != std::string_view::npos &&
                        function->find_first_of(" =(") == std::string_view::npos;
    record.message = placed ? rest : text;
    if (placed) {
        record.function = *function;
        record.place = *place;
    }
}

}  // namespace

std::optional<LogRecord> parseRecord(std::string_view line)
{
    while (!line.empty() && (line.back() == '\r' || line.back() == '\n'))
        line.remove_suffix(1);
    if (!isTime(line.substr(0, timeForm.size())))
        return std::nullopt;
    LogRecord record;
    record.time = line.substr(0, timeForm.size());
    record.milliseconds = toMilliseconds(record.time);
    std::string_view rest = line.substr(timeForm.size());
    if (!rest.starts_with(' '))
        return std::nullopt;
    rest.remove_prefix(1);
    const auto level = takeTo(rest, " [");
    const auto process = takeTo(rest, ",");
    const auto thread = takeTo(rest, "] ");
    if (!level || !process || !thread || std::ranges::find(levels, *level) == std::end(levels) ||
        process->empty() || !std::ranges::all_of(*process, isDigit) || thread->size() != 8)
        return std::nullopt;
    record.level = *level;
    record.process = *process;
    record.thread = *thread;
    splitMessage(rest, record);
    return record;
}

std::string withoutSecrets(const std::string& message)
{
    // Not only at the beginning: a record can be cut off, or have a prefix from another program.
    for (const std::string_view beginning : secretMessages) {
        const size_t found = message.find(beginning);
        if (found == std::string::npos)
            continue;
        // A PIN follows the equals sign; all other secrets are in brackets.
        const size_t open =
            beginning.ends_with('=') ? found + beginning.size() : message.find('[', found);
        if (open != std::string::npos)
            return message.substr(0, open) + "(not shown)";
    }
    return message;
}

}  // namespace NV::tool
