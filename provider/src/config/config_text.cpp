// Lines and marks of the modern reading.

#include "config/config_text.h"

#include <algorithm>

namespace NV {

namespace {

constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";

std::string_view trimmed(std::string_view text)
{
    constexpr std::string_view blanks = " \t";
    const size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

void takeLine(ConfigText& result, size_t number, std::string_view text)
{
    ConfigLine line = readConfigLine(text);
    switch (line.kind) {
    case ConfigLine::Kind::nothing:
        break;
    case ConfigLine::Kind::setting:
        result.modern |= line.key == "mode" && line.value == "modern";
        result.settings.insert_or_assign(std::move(line.key), std::move(line.value));
        break;
    case ConfigLine::Kind::unreadable:
        ++result.unreadableCount;
        if (result.unreadable.size() < ConfigText::mostKept)
            result.unreadable.push_back(
                {number, std::string(text.substr(0, ConfigText::mostOfLine))});
        break;
    }
}

}  // namespace

ConfigLine readConfigLine(std::string_view line)
{
    if (line.ends_with('\r'))
        line.remove_suffix(1);
    line = trimmed(line);
    if (line.empty() || line.front() == '#')
        return {};
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos || line.find('\0') != std::string_view::npos)
        return {ConfigLine::Kind::unreadable, {}, {}};
    const std::string_view key = trimmed(line.substr(0, equals));
    if (key.empty())
        return {ConfigLine::Kind::unreadable, {}, {}};
    return {ConfigLine::Kind::setting, std::string(key),
            std::string(trimmed(line.substr(equals + 1)))};
}

ConfigText readConfigText(std::string_view text)
{
    if (text.starts_with(byteOrderMark))
        text.remove_prefix(byteOrderMark.size());
    ConfigText result;
    for (size_t number = 1; !text.empty(); ++number) {
        const size_t length = std::min(text.find('\n'), text.size());
        takeLine(result, number, text.substr(0, length));
        text.remove_prefix(std::min(length + 1, text.size()));
    }
    if (result.modern)
        result.settings["mode"] = "modern";
    return result;
}

}  // namespace NV
