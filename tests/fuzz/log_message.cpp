// Texts of applications and tokens in a log record: names of keys and properties in UTF-16, narrow
// texts, numbers. The input: the capacity of the buffer and a number, a narrow text up to a line
// feed, then UTF-16.

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

#include "base/text.h"
#include "logger/logger_record.h"
#include "target.h"

namespace NV::fuzz {

namespace {

// The message in a block of exactly the capacity.
std::string format(size_t capacity, const char* text, ...) NV_PRINTF(2, 3);

std::string format(size_t capacity, const char* text, ...)
{
    std::vector<char> buffer(capacity, '?');
    va_list arguments;
    va_start(arguments, text);
    const size_t length = formatMessage(buffer.data(), buffer.size(), text, arguments);
    va_end(arguments);
    HOLDS(length < capacity);
    HOLDS(buffer[length] == '\0');
    return {buffer.data(), length};
}

// A message that does not fit becomes empty.
std::string fitting(const std::string& message, size_t capacity)
{
    return message.size() < capacity ? message : std::string();
}

// Encodes code points as RFC 3629 defines; a surrogate without its other half is U+FFFD.
std::string expectedUtf8(const std::u16string& units)
{
    std::string text;
    for (size_t i = 0; i < units.size(); ++i) {
        uint32_t point = units[i];
        const uint32_t next = i + 1 < units.size() ? units[i + 1] : 0;
        if (point >> 11 == 0x1B) {
            const bool pair = point < 0xDC00 && next >> 10 == 0x37;
            point = pair ? 0x10000 + (point % 0x400) * 0x400 + next % 0x400 : 0xFFFD;
            i += pair ? 1 : 0;
        }
        const int following = point < 0x80 ? 0 : point < 0x800 ? 1 : point < 0x10000 ? 2 : 3;
        constexpr unsigned marks[] = {0x00, 0xC0, 0xE0, 0xF0};
        text.push_back(static_cast<char>(marks[following] + (point >> (6 * following))));
        for (int left = following - 1; left >= 0; --left)
            text.push_back(static_cast<char>(0x80 + (point >> (6 * left)) % 64));
    }
    return text;
}

// Up to a zero, as in every text that the module gets.
std::u16string readUnits(Input& input)
{
    std::u16string units;
    while (!input.atEnd()) {
        const auto unit = static_cast<char16_t>(input.number(2));
        if (unit == 0)
            break;
        units.push_back(unit);
    }
    return units;
}

void checkRecord(const std::string& message)
{
    LocalTime time;
    time.calendar.tm_year = 126;
    time.calendar.tm_mday = 1;
    const std::string line = recordLine(time, "TRC", "[00001,00000002]", message);
    std::string expected = "2026-01-01 00:00:00.000 TRC [00001,00000002] ";
    for (const char c : message) {
        if (c != '\n')
            expected.push_back(c);
    }
    HOLDS(line == expected + "\n");

    // The name of a folder adds no lines to the banner.
    LoggerSettings settings;
    settings.store = message;
    const std::string banner = bannerLines(time, "[00001,00000002]", settings);
    HOLDS(std::count(banner.begin(), banner.end(), '\n') == 7 && banner.ends_with('\n'));
}

}  // namespace

}  // namespace NV::fuzz

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace NV::fuzz;
    Input input(data, size);
    const size_t capacity = 1 + input.number(2) % 2000;
    const auto number = static_cast<int>(input.number());
    const std::string line = input.line();
    const std::string narrow = line.substr(0, line.find('\0'));
    const std::u16string units = readUnits(input);
    const std::wstring name(units.begin(), units.end());

    const std::string wide = expectedUtf8(units);
    const std::string digits = std::to_string(number);
    HOLDS(NV::toUtf8(name) == wide);
    const std::string message = narrow + "[" + digits + "]:pszKeyName=" + wide + "%\n";
    const std::string formatted =
        format(capacity, "%s[%d]:pszKeyName=%s%%\n", narrow.c_str(), number, wide.c_str());
    HOLDS(formatted == fitting(message, capacity));
    HOLDS(format(capacity, "%s=%d", narrow.c_str(), number) ==
          fitting(narrow + "=" + digits, capacity));
    checkRecord(narrow);
    checkRecord(message);
    return 0;
}
