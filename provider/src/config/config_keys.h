// The keys of the configuration file, one row each. The module reads its settings by this table,
// "keywarden init" writes the file from it, "keywarden check" judges the values by it, and a test
// compares docs/configuration.md with it. To add a key, add a row.

#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "config/config.h"
#include "logger/logger.h"

namespace NV {

// What a value is. Decides how it is encoded and what can be wrong with it.
enum class ConfigKind : uint8_t {
    library,   // path of a DLL, UTF-8; required
    logLevel,  // one of logLevelNames
    logTypes,  // a list of logTypeNames
    folder,    // a path in the ANSI code page; "~" is the user's profile
    days,      // decimal digits; required
};

struct ConfigKey {
    const char* name;
    ConfigKind kind;
    // The value in a new file. The module has no use for it: a key that is absent from the file has
    // the empty value.
    const char* initialValue;
    // Takes the value over; null for a key that another part of the module reads.
    void (*apply)(LoggerSettings& settings, const std::string& value, const std::string& profile);
    // Explains the key to users, in lines that fit a comment of the file.
    const char* help;
};

// In the order of a new file.
std::span<const ConfigKey> configKeys();

// Takes over the values of all keys, a missing key's empty value included. Throws as parseLogRotate
// does; the other settings are then assigned.
void applyLogSettings(Config& config, const std::string& profile, LoggerSettings& settings);

// Sets the behaviour of the process by the key "mode".
void applyMode(Config& config);

}  // namespace NV
