// The text of the configuration file: settings and errors are those of a second reader that goes
// character by character, and the settings can be written and read again.

#include <optional>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "config/config.h"
#include "target.h"

namespace NV::fuzz {

namespace {

struct Outcome {
    Settings settings;
    std::optional<std::string> error;
};

Outcome read(const std::string& text)
{
    Outcome outcome;
    std::istringstream stream(text);
    try {
        readSettings(stream, outcome.settings);
    } catch (const std::runtime_error& error) {
        outcome.error = error.what();
    }
    return outcome;
}

std::string withoutSpaces(std::string text)
{
    while (!text.empty() && text.back() == ' ')
        text.pop_back();
    while (!text.empty() && text.front() == ' ')
        text.erase(0, 1);
    return text;
}

// One line; false when it is an error.
bool readLine(const std::string& line, Settings& settings)
{
    if (line.empty() || line[0] == '#')
        return true;
    std::string key;
    std::string value;
    bool behindSign = false;
    for (const char c : line) {
        if (c == '=' && !behindSign)
            behindSign = true;
        else
            (behindSign ? value : key).push_back(c);
    }
    if (behindSign)
        settings.insert_or_assign(withoutSpaces(key), withoutSpaces(value));
    return behindSign;
}

Outcome expected(const std::string& text)
{
    Outcome outcome;
    std::string line;
    for (size_t i = 0; i <= text.size(); ++i) {
        if (i < text.size() && text[i] != '\n') {
            line.push_back(text[i]);
            continue;
        }
        if (!readLine(line, outcome.settings)) {
            // An exception's text ends at the first zero.
            outcome.error = "Invalid line: " + line.substr(0, line.find('\0'));
            break;
        }
        line.clear();
    }
    return outcome;
}

std::string written(const Settings& settings)
{
    std::string text;
    for (const auto& [key, value] : settings)
        text.append(" ").append(key).append(" = ").append(value).append(" \n");
    return text;
}

}  // namespace

}  // namespace NV::fuzz

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace NV::fuzz;
    const std::string text(data, data + size);
    const Outcome outcome = read(text);
    const Outcome reference = expected(text);
    HOLDS(outcome.settings == reference.settings);
    HOLDS(outcome.error == reference.error);

    const Outcome again = read(written(outcome.settings));
    HOLDS(!again.error);
    HOLDS(again.settings == outcome.settings);
    return 0;
}
