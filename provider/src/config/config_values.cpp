// Parsing of the values.

#include "config/config_values.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <system_error>

#include "config/config.h"

namespace NV {

namespace {

std::string upperCase(std::string text)
{
    for (char& c : text) {
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
    }
    return text;
}

const NamedBits* findLogLevel(const std::string& value)
{
    const auto* level = std::ranges::find(logLevelNames, upperCase(value), &NamedBits::name);
    return level != std::end(logLevelNames) ? level : nullptr;
}

}  // namespace

bool isLogLevel(const std::string& value)
{
    return findLogLevel(value) != nullptr;
}

uint32_t parseLogLevel(const std::string& value)
{
    const NamedBits* level = findLogLevel(value);
    return level != nullptr ? level->bits : logMaskInfo;
}

uint32_t parseLogTypes(const std::string& value)
{
    const std::string names = upperCase(value);
    uint32_t types = 0;
    for (size_t begin = 0; begin <= names.size();) {
        const size_t comma = std::min(names.find(',', begin), names.size());
        const std::string name = trimSpaces(names.substr(begin, comma - begin));
        const auto* output = std::ranges::find(logTypeNames, name, &NamedBits::name);
        if (output != std::end(logTypeNames))
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

std::string logRotateOrDefault(const std::string& value, const std::string&)
{
    int32_t days = 0;
    const char* end = value.data() + value.size();
    const auto [last, error] = std::from_chars(value.data(), end, days);
    const bool number = error == std::errc() && last == end && days >= 0 && value.front() != '-';
    return number ? value : std::to_string(LoggerSettings().rotate);
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

}  // namespace NV
