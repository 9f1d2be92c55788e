// Reading the configuration file.

#include "config/config.h"

#include <fstream>
#include <istream>
#include <stdexcept>

namespace NV {

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

void Config::load(const std::string& path)
{
    // Compat: binary, so that the carriage return of a CR LF line stays in the value on every
    // system.
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw std::runtime_error("Cannot open file: " + path);
    readSettings(file, settings_);
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
