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
    mode,      // "modern" or "classic"
    yesOrNo,   // "yes" or "no"
    library,   // path of a DLL, UTF-8; required
    logLevel,  // one of logLevelNames
    logTypes,  // a list of logTypeNames
    folder,    // a path in the ANSI code page; "~" is the user's profile
    days,      // decimal digits; required
};

// `profile` is the user's profile folder in the ANSI code page.
using Meaning = std::string (*)(const std::string& value, const std::string& profile);

struct ConfigKey {
    const char* name;
    ConfigKind kind;
    // The value in a new file. The module has no use for it: a key that is absent from the file has
    // the empty value.
    const char* initialValue;
    // The value's meaning in each behaviour. Null: it means what it says.
    Meaning classic;
    Meaning modern;
    // Takes the meaning over; null for a key that another part of the module reads. Throws as
    // parseLogRotate does.
    void (*apply)(LoggerSettings& settings, const std::string& meaning);
    // Explains the key to users, in lines that fit a comment of the file.
    const char* help;
};

// In the order of a new file.
std::span<const ConfigKey> configKeys();

// The path of the PKCS#11 library, UTF-8. Empty if there is none.
std::string configuredLibrary(Config& config);

// The folder of the log, in the ANSI code page. Empty if there is none.
std::string configuredLogStore(Config& config, const std::string& profile);

// Takes over the meanings of all values, a missing key's empty value included, and what the behaviour
// means for the log. Throws as parseLogRotate does in classic; the other settings are then assigned.
void applyLogSettings(Config& config, const std::string& profile, LoggerSettings& settings);

}  // namespace NV
