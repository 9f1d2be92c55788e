// Taking values out of lines by the tables of secret and of harmless messages.

#include "formats/redaction.h"

#include <algorithm>
#include <initializer_list>
#include <vector>

#include "characters.h"
#include "formats/known_lines.h"
#include "formats/log_pattern.h"
#include "formats/log_record.h"
#include "formats/secret_lines.h"

namespace NV::tool {

namespace {

// A SHA-1 thumbprint has 40 digits. A key's name has two for each byte of CKA_ID, which is often a hash.
constexpr size_t longestRun = 64;

bool isOfRun(char c)
{
    return isDigit(c) || isLetter(c) || c == '+' || c == '/';
}

bool isPlaceCharacter(char c)
{
    return isDigit(c) || isLetter(c) || c == '_' || c == '.';
}

// "NV::Provider::SignHash", "NVKSPOpenKey", "NV::P11ECKeyObject::~P11ECKeyObject": a name that the compiler
// made, and not the beginning of a message.
bool isFunction(std::string_view function)
{
    constexpr std::string_view others[] = {"DllMain", "SignalHandler", "GetKeyStorageInterface"};
    const auto belongs = [](char c) {
        return isDigit(c) || isLetter(c) || c == '_' || c == ':' || c == '~';
    };
    return std::ranges::all_of(function, belongs) &&
           (function.starts_with("NV") || std::ranges::find(others, function) != std::end(others));
}

// "nvvtoken_keys.cpp:307"
bool isPlace(std::string_view place)
{
    const std::string_view file = place.substr(0, place.find(':'));
    const std::string_view line = place.substr(std::min(file.size() + 1, place.size()));
    return (file.ends_with(".cpp") || file.ends_with(".h")) &&
           std::ranges::all_of(file, isPlaceCharacter) && !line.empty() && line.size() <= 6 &&
           std::ranges::all_of(line, isDigit);
}

bool isThread(std::string_view thread)
{
    return std::ranges::all_of(thread, [](char c) { return isDigit(c) || (c >= 'a' && c <= 'f'); });
}

bool isWellFormed(const LogRecord& record)
{
    constexpr size_t mostOfProcess = 10;
    return isThread(record.thread) && record.process.size() <= mostOfProcess &&
           (record.function.empty() || (isFunction(record.function) && isPlace(record.place)));
}

// The message with its values as they may be seen.
std::string shown(std::string_view message, const std::vector<LogValue>& values)
{
    std::string text;
    const char* at = message.data();
    for (const LogValue& value : values) {
        text.append(at, value.text.data());
        if (value.kind == '!')
            text += takenOut;
        else if (value.kind == 's')
            text += withoutLongRuns(value.text);
        else
            text += value.text;
        at = value.text.data() + value.text.size();
    }
    return text.append(at, message.data() + message.size());
}

bool isSecret(std::string_view function, std::string_view message, std::vector<LogValue>& values)
{
    return std::ranges::any_of(secretLines(), [&](const SecretLine& line) {
        values.clear();
        return (line.functions.empty() || hasWord(line.functions, function)) &&
               hasForm(line.message, message, values);
    });
}

std::string_view withoutBlanksAtEnd(std::string_view text)
{
    const size_t last = text.find_last_not_of(' ');
    return text.substr(0, last == std::string_view::npos ? 0 : last + 1);
}

}  // namespace

RedactedLine redacted(std::string_view line)
{
    using Change = RedactedLine::Change;
    const auto record = parseRecord(line);
    if (!record || !isWellFormed(*record))
        return {Change::line,
                "(" + std::to_string(line.size()) + " bytes that are no record were taken out)"};
    const std::string_view message = record->message;
    std::string text(line.data(), message.data());
    std::vector<LogValue> values;
    // Some lines of the module have blanks at their end.
    for (const std::string_view one : {message, withoutBlanksAtEnd(message)}) {
        if (isSecret(record->function, one, values))
            return {Change::values, text + shown(one, values)};
    }
    if (!isKnown(record->function, message, values))
        return {Change::message, text.append(takenOut)};
    const std::string rest = shown(message, values);
    const Change change = rest == message ? Change::none : Change::values;
    return {change, text + rest};
}

std::string withoutLongRuns(std::string_view text)
{
    std::string result;
    while (!text.empty()) {
        const size_t length =
            static_cast<size_t>(std::ranges::find_if_not(text, isOfRun) - text.begin());
        if (length > longestRun)
            result += takenOut;
        else
            result += text.substr(0, length);
        text.remove_prefix(length);
        const size_t other =
            static_cast<size_t>(std::ranges::find_if(text, isOfRun) - text.begin());
        result += text.substr(0, other);
        text.remove_prefix(other);
    }
    return result;
}

}  // namespace NV::tool
