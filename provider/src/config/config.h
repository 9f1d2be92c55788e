// The configuration file: key=value lines, which the module reads once, when it is attached.

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
// Throws std::runtime_error, "Invalid line: " and the line; the settings then contain the lines
// before it. Compat: lines end in a line feed, and a carriage return is part of the value.
void readSettings(std::istream& text, Settings& settings);

// One per process, created by the first call of instance() and never destroyed. It has no lock: the
// module fills it while it is attached and only reads it afterwards.
class Config {
public:
    static Config& instance();

    virtual ~Config() = default;
    Config(const Config&) = delete;
    Config& operator=(const Config&) = delete;

    // Reads the file into the settings. The path is in the ANSI code page. Throws
    // std::runtime_error, "Cannot open file: " and the path, or as readSettings does.
    void load(const std::string& path);

    // The value of the key. Keys are case-sensitive. Compat: an absent key gets an empty value, not
    // a default.
    const std::string& get(const std::string& key);

    // The module's own HINSTANCE, for the template of the PIN dialog. Null before the module is
    // attached.
    HINSTANCE__* moduleInstance() const { return moduleInstance_; }
    void setModuleInstance(HINSTANCE__* instance) { moduleInstance_ = instance; }

private:
    friend NeverDestroyed<Config>;
    Config() = default;

    HINSTANCE__* moduleInstance_ = nullptr;
    Settings settings_;
};

// Removes the spaces at both ends, but no tabs or carriage returns.
std::string trimSpaces(const std::string& text);

}  // namespace NV
