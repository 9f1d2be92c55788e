// The configuration: key=value lines, which the module reads once, when it is attached. A file is read in
// the modern way (config_text.h) if that reading finds the line mode=modern, and in the classic way
// otherwise.

#pragma once

#include <iosfwd>
#include <map>
#include <string>
#include <vector>

#include "base/never_destroyed.h"
#include "config/config_file.h"
#include "config/mode.h"

// The target of an HINSTANCE, declared as the Windows headers do.
struct HINSTANCE__;

namespace NV {

using Settings = std::map<std::string, std::string>;

// The classic reading: key=value lines to the end of the text. A later line of a key replaces an
// earlier one. Throws std::runtime_error, "Invalid line: " and the line; the settings then contain the
// lines before it. Compat: lines end in a line feed, and a carriage return is part of the value.
void readSettings(std::istream& text, Settings& settings);

// One per process, created by the first call of instance() and never destroyed. It has no lock: the
// module fills it while it is attached and only reads it afterwards.
class Config {
public:
    static Config& instance();

    virtual ~Config() = default;
    Config(const Config&) = delete;
    Config& operator=(const Config&) = delete;

    // Reads a file in its own way. The path is in the ANSI code page. Throws std::runtime_error, "Cannot
    // open file: " and the path, or as readSettings does. A modern file replaces all settings, a classic
    // one those that it has.
    void load(const std::string& path) { load(readConfigFile(path)); }
    void load(const ConfigFile& file);

    // The same in two steps, for the attach handler: the behaviour decides what it does before it reads
    // a classic file. The first step never fails because of the file. It returns whether the file is
    // modern, and only then takes over its settings; otherwise call the second one.
    bool loadIfModern(const ConfigFile& file);
    void loadClassic(const ConfigFile& file);

    // The behaviour that the file has chosen.
    Mode mode() const;

    // What is wrong with the file, although it was read: a text for the log for each unreadable line of
    // a modern file, or for an unknown value of "mode".
    const std::vector<std::string>& problems() const { return problems_; }

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
    Behaviour behaviour_ = Behaviour::classic;
    bool silentPrompt_ = false;
    std::vector<std::string> problems_;
};

// Removes the spaces at both ends, but no tabs or carriage returns.
std::string trimSpaces(const std::string& text);

}  // namespace NV
