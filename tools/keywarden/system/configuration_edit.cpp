// Editing by lines.

#include "system/configuration_edit.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "config/config_file.h"
#include "failure.h"
#include "output_file.h"
#include "text.h"

namespace NV::tool {

namespace {

constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view blanks = " \t\r";

std::string_view trimmed(std::string_view text)
{
    const size_t begin = text.find_first_not_of(blanks);
    return begin == std::string_view::npos
               ? std::string_view()
               : text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

// Whether the line gives the key a value.
bool isLineOf(std::string_view line, const std::string& key)
{
    if (line.starts_with(byteOrderMark))
        line.remove_prefix(byteOrderMark.size());
    const size_t equals = line.find('=');
    return equals != std::string_view::npos && trimmed(line.substr(0, equals)) == key;
}

std::string withValue(std::string_view line, const std::string& value)
{
    const size_t equals = line.find('=');
    const std::string_view old = trimmed(line.substr(equals + 1));
    // Blanks alone have no place for a value but their beginning.
    const size_t begin = old.empty() ? equals + 1 : static_cast<size_t>(old.data() - line.data());
    return std::string(line.substr(0, begin)) + value +
           std::string(line.substr(begin + old.size()));
}

// Returns whether there is a line of the key.
bool setValue(std::string& text, const std::string& key, const std::string& value)
{
    bool found = false;
    std::string edited;
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find('\n', begin), text.size());
        const std::string_view line = std::string_view(text).substr(begin, end - begin);
        const bool ofKey = isLineOf(line, key);
        found = found || ofKey;
        edited += ofKey ? withValue(line, value) : std::string(line);
        if (end < text.size())
            edited += '\n';
        begin = end + 1;
    }
    text = std::move(edited);
    return found;
}

}  // namespace

std::string withValues(std::string text, const Settings& values)
{
    for (const auto& [key, value] : values) {
        if (setValue(text, key, value))
            continue;
        const bool windowsLines = text.find("\r\n") != std::string::npos;
        const char* lineEnd = windowsLines ? "\r\n" : "\n";
        if (!text.empty() && !text.ends_with('\n'))
            text += lineEnd;
        text += key;
        text += "=" + value + lineEnd;
    }
    return text;
}

bool editConfiguration(Output& out, const std::filesystem::path& file, const Settings& values)
{
    const ConfigFile content = readConfigFile(file);
    if (!content.opened)
        throw Failure(toUtf8(file) + " cannot be read",
                      "Run \"keywarden check\" to find the reason.");
    const std::string text = withValues(content.text, values);
    if (text == content.text)
        return false;
    OutputFile(out, toUtf8(file), {}, {.force = true, .text = true})
        .write({reinterpret_cast<const unsigned char*>(text.data()), text.size()});
    return true;
}

}  // namespace NV::tool
