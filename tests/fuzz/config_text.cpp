// The modern reading of a configuration file: settings, behaviour and unreadable lines are those of a
// second reader that goes character by character; the settings can be written and read again; paths are
// expanded as a second expander does, and are no longer than a path.

#include <optional>
#include <vector>

#include "config/config_expansion.h"
#include "config/config_text.h"
#include "target.h"

namespace NV::fuzz {

namespace {

struct Reference {
    Settings settings;
    bool modern = false;
    std::vector<size_t> unreadable;
};

std::string withoutBlanks(std::string text)
{
    const auto blank = [](char c) { return c == ' ' || c == '\t'; };
    while (!text.empty() && blank(text.back()))
        text.pop_back();
    while (!text.empty() && blank(text.front()))
        text.erase(0, 1);
    return text;
}

void readLine(std::string line, size_t number, Reference& reference)
{
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    line = withoutBlanks(line);
    if (line.empty() || line[0] == '#')
        return;
    std::string key;
    std::string value;
    bool behindSign = false;
    bool zero = false;
    for (const char c : line) {
        zero |= c == '\0';
        if (c == '=' && !behindSign)
            behindSign = true;
        else
            (behindSign ? value : key).push_back(c);
    }
    key = withoutBlanks(key);
    value = withoutBlanks(value);
    if (!behindSign || zero || key.empty()) {
        reference.unreadable.push_back(number);
        return;
    }
    reference.modern |= key == "mode" && value == "modern";
    reference.settings[key] = value;
}

Reference expected(const std::string& text)
{
    Reference reference;
    std::string line;
    size_t number = 1;
    const bool marked = text.compare(0, 3, "\xEF\xBB\xBF") == 0;
    for (size_t i = marked ? 3 : 0; i <= text.size(); ++i) {
        if (i < text.size() && text[i] != '\n') {
            line.push_back(text[i]);
            continue;
        }
        readLine(line, number++, reference);
        line.clear();
    }
    if (reference.modern)
        reference.settings["mode"] = "modern";
    return reference;
}

// With line ends and blanks of all kinds.
std::string written(const Settings& settings)
{
    std::string text = "\xEF\xBB\xBF";
    size_t line = 0;
    for (const auto& [key, value] : settings) {
        const bool odd = ++line % 2 != 0;
        text.append(odd ? "\t" : "").append(key).append(odd ? "\t= " : "=").append(value);
        // A carriage return at the end of a value needs a blank or one of the line end behind it.
        text.append(odd ? " \n" : "\r\n\r\n");
    }
    return text;
}

std::optional<std::string> valueOf(const std::string& name)
{
    if (name.size() % 3 == 1)
        return std::string(name.size() * 50, 'v');
    return name == "~%" ? std::optional<std::string>("%A%") : std::nullopt;
}

std::string expandedByHand(const std::string& text)
{
    std::string result;
    for (size_t i = 0; i < text.size();) {
        const size_t end = text[i] == '%' ? text.find('%', i + 1) : std::string::npos;
        const auto value = end != std::string::npos ? valueOf(text.substr(i + 1, end - i - 1))
                                                    : std::optional<std::string>();
        if (value)
            result += *value;
        else
            result += text[i];
        i = value ? end + 1 : i + 1;
    }
    return result.size() <= longestPath ? result : text;
}

void checkUnreadable(const ConfigText& read, const Reference& reference)
{
    HOLDS(read.unreadableCount == reference.unreadable.size());
    HOLDS(read.unreadable.size() == std::min(reference.unreadable.size(), ConfigText::mostKept));
    for (size_t i = 0; i < read.unreadable.size(); ++i) {
        HOLDS(read.unreadable[i].number == reference.unreadable[i]);
        HOLDS(read.unreadable[i].text.size() <= ConfigText::mostOfLine);
    }
}

}  // namespace

}  // namespace NV::fuzz

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace NV;
    using namespace NV::fuzz;
    const std::string text(data, data + size);
    const ConfigText read = readConfigText(text);
    const Reference reference = expected(text);
    HOLDS(read.settings == reference.settings);
    HOLDS(read.modern == reference.modern);
    checkUnreadable(read, reference);

    const ConfigText again = readConfigText(written(read.settings));
    HOLDS(again.unreadableCount == 0);
    HOLDS(again.settings == read.settings);
    HOLDS(again.modern == read.modern);

    const std::string expanded = expandVariables(text, valueOf);
    HOLDS(expanded == expandedByHand(text));
    HOLDS(expanded.size() <= longestPath || expanded == text);
    return 0;
}
