// Parsing of the four logging keys.

#include "config/config_apply.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace NV {

namespace {

struct NamedBits {
    std::string_view name;
    uint32_t bits;
};

constexpr NamedBits levels[] = {{"TRACE", logMaskTrace}, {"DEBUG", logMaskDebug},
                                {"INFO", logMaskInfo},   {"WARN", logMaskWarn},
                                {"ERROR", logMaskError}, {"SEVERE", logMaskSevere}};
constexpr NamedBits outputs[] = {{"CONSOLE", logToConsole}, {"FILE", logToFile}};

std::string upperCase(std::string text)
{
    for (char& c : text) {
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
    }
    return text;
}

}  // namespace

uint32_t parseLogLevel(const std::string& value)
{
    const auto* level = std::ranges::find(levels, upperCase(value), &NamedBits::name);
    return level != std::end(levels) ? level->bits : logMaskInfo;
}

uint32_t parseLogTypes(const std::string& value)
{
    const std::string names = upperCase(value);
    uint32_t types = 0;
    for (size_t begin = 0; begin <= names.size();) {
        const size_t comma = std::min(names.find(',', begin), names.size());
        const std::string name = trimSpaces(names.substr(begin, comma - begin));
        const auto* output = std::ranges::find(outputs, name, &NamedBits::name);
        if (output != std::end(outputs))
            types |= output->bits;
        begin = comma + 1;
    }
    return types;
}

int32_t parseLogRotate(const std::string& value, int32_t current)
{
    if (!std::ranges::all_of(value, [](char c) { return c >= '0' && c <= '9'; }))
        return current;
    if (value.empty())
        throw std::invalid_argument("invalid stoi argument");
    int32_t days = 0;
    const char* end = value.data() + value.size();
    if (std::from_chars(value.data(), end, days).ec != std::errc())
        throw std::out_of_range("stoi argument out of range");
    return days;
}

std::string expandLogStore(const std::string& value, const std::string& profile)
{
    std::string path;
    for (const char c : value) {
        if (c == '~')
            path += profile;
        else
            path += c;
    }
    return path;
}

void applyLogSettings(Config& config, const std::string& profile, LoggerSettings& settings)
{
    const std::string level = config.get("logLevel");
    const std::string types = config.get("logTypes");
    const std::string store = config.get("logStore");
    const std::string rotate = config.get("logRotate");
    settings.levelMask = parseLogLevel(level);
    settings.types = parseLogTypes(types);
    settings.store = expandLogStore(store, profile);
    settings.rotate = parseLogRotate(rotate, settings.rotate);
}

}  // namespace NV
