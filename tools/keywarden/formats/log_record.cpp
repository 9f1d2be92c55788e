// Splitting a line of the log into its fields.

#include "formats/log_record.h"

#include <algorithm>
#include <charconv>
#include <initializer_list>

#include "characters.h"
#include "formats/log_pattern.h"
#include "formats/secret_lines.h"

namespace NV::tool {

namespace {

// "2026-03-04 17:05:09.042 TRC [04312,1a2b3c4d] message"; each 0 of the form is any digit.
constexpr std::string_view timeForm = "0000-00-00 00:00:00.000";
constexpr std::string_view levels[] = {"TRC", "DBG", "INF", "WRN", "ERR", "SEV"};

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

std::optional<int64_t> parseTime(std::string_view time)
{
    return isTime(time) ? std::optional(toMilliseconds(time)) : std::nullopt;
}

std::optional<LogRecord> parseRecord(std::string_view line)
{
    while (!line.empty() && (line.back() == '\r' || line.back() == '\n'))
        line.remove_suffix(1);
    const auto milliseconds = parseTime(line.substr(0, timeForm.size()));
    if (!milliseconds)
        return std::nullopt;
    LogRecord record;
    record.time = line.substr(0, timeForm.size());
    record.milliseconds = *milliseconds;
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

std::string withoutSecrets(std::string_view message)
{
    // Not only at the beginning: a record can be cut off, or have a prefix from another program.
    for (const SecretLine& line : secretLines()) {
        if (line.shown != Shown::secret)
            continue;
        const std::string_view beginning = beginningOf(line.message);
        const size_t found = message.find(beginning);
        if (found == std::string_view::npos)
            continue;
        // A PIN follows the equals sign; all other secrets are in brackets.
        const size_t open =
            beginning.ends_with('=') ? found + beginning.size() : message.find('[', found);
        if (open != std::string_view::npos)
            return std::string(message.substr(0, open)) + "(not shown)";
    }
    return std::string(message);
}

std::optional<std::string_view> between(std::string_view text, std::string_view before,
                                        std::string_view after)
{
    const size_t begin = text.find(before);
    if (begin == std::string_view::npos)
        return std::nullopt;
    const std::string_view rest = text.substr(begin + before.size());
    const size_t end = rest.find(after);
    if (end == std::string_view::npos)
        return std::nullopt;
    return rest.substr(0, end);
}

std::string_view resultInError(std::string_view message)
{
    const size_t begin = message.rfind('(');
    if (begin == std::string_view::npos || !message.ends_with("))"))
        return {};
    const std::string_view name = message.substr(begin + 1, message.size() - begin - 3);
    return name.starts_with("CKR_") ? name : std::string_view();
}

std::string_view operationOfTable(std::string_view function)
{
    for (const std::string_view owner : {"NV::Provider::", "NV::ProviderManager::"}) {
        if (!function.starts_with(owner))
            continue;
        const std::string_view name = function.substr(owner.size());
        const bool ofTable = !name.empty() && name.front() >= 'A' && name.front() <= 'Z' &&
                             !name.starts_with("Provider");  // constructors
        return ofTable ? name : std::string_view();
    }
    return {};
}

std::optional<EndRecord> parseEnd(const LogRecord& record)
{
    constexpr std::string_view entryPoint = "NVKSP";
    if (!record.message.starts_with("DONE, STATUS=0x") || !record.function.starts_with(entryPoint))
        return std::nullopt;
    EndRecord end{record.function.substr(entryPoint.size()), {}, {}};
    constexpr std::string_view keyMark = ", KEY=";
    constexpr std::string_view resultMark = ", RESULT=";
    std::string_view fields = record.message;
    if (const size_t key = fields.find(keyMark); key != std::string_view::npos) {
        end.key = fields.substr(key + keyMark.size());
        fields = fields.substr(0, key);
    }
    if (const size_t result = fields.find(resultMark); result != std::string_view::npos)
        end.result = fields.substr(result + resultMark.size());
    return end;
}

}  // namespace NV::tool
