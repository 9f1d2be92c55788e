// Line by line, by the table of keys.

#include "system/redacted_configuration.h"

#include <algorithm>
#include <set>
#include <vector>

#include "characters.h"
#include "config/config_keys.h"
#include "formats/redaction.h"
#include "system/configuration.h"

namespace NV::tool {

namespace {

std::string_view withoutBlanks(std::string_view text)
{
    constexpr std::string_view space = " \t";
    const size_t first = text.find_first_not_of(space);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(space) - first + 1);
}

// The lines of the text, each with its line feed.
std::vector<std::string_view> linesOf(std::string_view text)
{
    std::vector<std::string_view> found;
    while (!text.empty()) {
        const size_t feed = text.find('\n');
        found.push_back(text.substr(0, feed == std::string_view::npos ? feed : feed + 1));
        text.remove_prefix(found.back().size());
    }
    return found;
}

// The comments of a new file, without line feeds.
const std::set<std::string, std::less<>>& usualComments()
{
    static const std::set<std::string, std::less<>> comments = [] {
        std::set<std::string, std::less<>> found;
        const std::string text = configurationText(newConfiguration());
        for (const std::string_view line : linesOf(text)) {
            if (line.starts_with('#'))
                found.emplace(line.substr(0, line.find('\n')));
        }
        return found;
    }();
    return comments;
}

bool isKnownKey(std::string_view key)
{
    return std::ranges::any_of(configKeys(),
                               [key](const ConfigKey& one) { return key == one.name; });
}

// A name of letters, which is no secret.
bool isPlainName(std::string_view key)
{
    constexpr size_t longest = 32;
    return !key.empty() && key.size() <= longest &&
           std::ranges::all_of(key, [](char c) { return isLetter(c) || c == '_' || c == '.'; });
}

// The line without its end.
std::string redactedLine(std::string_view line)
{
    const std::string_view content = withoutBlanks(line);
    const size_t equals = line.find('=');
    if (content.empty())
        return std::string(line);
    if (content.starts_with('#'))
        return usualComments().contains(content) ? std::string(line) : "# " + std::string(takenOut);
    if (equals == std::string_view::npos)
        return std::string(takenOut);
    const std::string_view key = withoutBlanks(line.substr(0, equals));
    if (isKnownKey(key))
        return std::string(line);
    return (isPlainName(key) ? std::string(key) + "=" : std::string()) + std::string(takenOut);
}

}  // namespace

std::string redactedConfiguration(std::string_view text)
{
    constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
    std::string result;
    if (text.starts_with(byteOrderMark)) {
        result = byteOrderMark;
        text.remove_prefix(byteOrderMark.size());
    }
    for (const std::string_view line : linesOf(text)) {
        const size_t end = line.find_first_of("\r\n");
        const std::string_view ending =
            end == std::string_view::npos ? std::string_view() : line.substr(end);
        const bool plain = ending.empty() || ending == "\n" || ending == "\r\n" || ending == "\r";
        result += plain ? redactedLine(line.substr(0, end)) + std::string(ending)
                        : std::string(takenOut) + "\n";
    }
    return result;
}

std::string withoutQuotedLines(std::string_view text)
{
    // Quoted, a line can contain any of these texts, so the last one counts.
    constexpr std::string_view reason = "\" has no \"=\"";
    const size_t quote = text.find(": \"");
    if (!text.starts_with("line ") || quote == std::string_view::npos)
        return std::string(text);
    const size_t end = text.rfind(reason);
    return std::string(text.substr(0, quote)) + ": " + std::string(takenOut) +
           std::string(end == std::string_view::npos ? std::string_view() : text.substr(end + 1));
}

}  // namespace NV::tool
