// The configuration file: key=value lines, read once when the module is attached.

#pragma once

#include <iosfwd>
#include <map>
#include <string>

#include "base/never_destroyed.h"

// The target of an HINSTANCE, declared as the Windows headers do.
struct HINSTANCE__;

namespace NV {

using Settings = std::map<std::string, std::string>;

// Reads key=value lines to the end of the text. A later line of a key replaces an earlier one.
// Throws std::runtime_error: "Invalid line: " and the line, with the lines before it kept. Line ends
// are line feeds; a carriage return is part of the value.
void readSettings(std::istream& text, Settings& settings);

// One per process, made by the first call of instance() and never destroyed. It has no lock: the
// module fills it while it is attached and only reads it afterwards.
class Config {
public:
    static Config& instance();

    virtual ~Config() = default;
    Config(const Config&) = delete;
    Config& operator=(const Config&) = delete;

    // Reads the file into the settings. Throws std::runtime_error: "Cannot open file: " and the
    // path, or what readSettings throws. The path is in the ANSI code page.
    void load(const std::string& path);

    // The value of the key, compared case-sensitively. An absent key is inserted with an empty
    // value, which is then its value.
    const std::string& get(const std::string& key);

    // The module's own HINSTANCE: where the PIN dialog finds its template. Null until attached.
    HINSTANCE__* moduleInstance() const { return moduleInstance_; }
    void setModuleInstance(HINSTANCE__* instance) { moduleInstance_ = instance; }

private:
    friend NeverDestroyed<Config>;
    Config() = default;

    HINSTANCE__* moduleInstance_ = nullptr;
    Settings settings_;
};

// Without the spaces at both ends. Tabs and carriage returns stay.
std::string trimSpaces(const std::string& text);

}  // namespace NV
