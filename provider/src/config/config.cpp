// Reading the configuration file.

#include "config/config.h"

#include <istream>
#include <sstream>
#include <stdexcept>

#include "config/config_text.h"

namespace NV {

namespace {

// For a line of the log: without control characters, and without half a character at the end.
std::string printable(std::string text)
{
    if (text.size() >= ConfigText::mostOfLine) {
        text.resize(ConfigText::mostOfLine - 3);
        while ((text.back() & 0xC0) == 0x80 && text.size() > 1)
            text.pop_back();
        if ((text.back() & 0xC0) == 0xC0)
            text.pop_back();
        text += "...";
    }
    for (char& c : text) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
            c = '?';
    }
    return text;
}

std::vector<std::string> problemsOfLines(const ConfigText& text)
{
    std::vector<std::string> problems;
    for (const ConfigText::Unreadable& line : text.unreadable)
        problems.push_back("Invalid line[" + std::to_string(line.number) +
                           "]: " + printable(line.text));
    if (const size_t more = text.unreadableCount - text.unreadable.size(); more != 0)
        problems.push_back("Invalid lines: " + std::to_string(more) + " more");
    return problems;
}

// The value is judged as the modern reading finds it, so that a carriage return or a mark does not hide
// that somebody wanted another behaviour.
std::vector<std::string> problemsOfMode(const ConfigText& text)
{
    const auto mode = text.settings.find("mode");
    if (mode == text.settings.end() || mode->second == "classic")
        return {};
    return {"Invalid mode: " + printable(mode->second)};
}

}  // namespace

void readSettings(std::istream& text, Settings& settings)
{
    std::string line;
    while (std::getline(text, line)) {
        if (line.empty() || line.front() == '#')
            continue;
        const size_t equals = line.find('=');
        if (equals == std::string::npos)
            throw std::runtime_error("Invalid line: " + line);
        settings[trimSpaces(line.substr(0, equals))] = trimSpaces(line.substr(equals + 1));
    }
}

Config& Config::instance()
{
    static NeverDestroyed<Config> config;
    return *config;
}

void Config::load(const ConfigFile& file)
{
    if (!loadIfModern(file))
        loadClassic(file);
}

bool Config::loadIfModern(const ConfigFile& file)
{
    ConfigText text = readConfigText(file.text);
    behaviour_ = text.modern ? Behaviour::modern : Behaviour::classic;
    problems_ = text.modern ? problemsOfLines(text) : problemsOfMode(text);
    if (text.modern) {
        settings_ = std::move(text.settings);
        silentPrompt_ = get("silentPrompt") == "yes";
    }
    return text.modern;
}

void Config::loadClassic(const ConfigFile& file)
{
    if (!file.opened)
        throw std::runtime_error("Cannot open file: " + file.path);
    // Compat: the text is binary, so that the carriage return of a CR LF line stays in the value.
    std::istringstream text(file.text);
    readSettings(text, settings_);
}

Mode Config::mode() const
{
    return Mode(behaviour_, silentPrompt_);
}

const std::string& Config::get(const std::string& key)
{
    return settings_[key];
}

std::string trimSpaces(const std::string& text)
{
    const size_t first = text.find_first_not_of(' ');
    if (first == std::string::npos)
        return {};
    return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

}  // namespace NV
