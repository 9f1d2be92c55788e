// The table of the keys.

#include "config/config_keys.h"

#include <algorithm>

#include "config/config_expansion.h"
#include "config/config_values.h"

namespace NV {

namespace {

void applyLogLevel(LoggerSettings& settings, const std::string& meaning)
{
    settings.levelMask = parseLogLevel(meaning);
}

void applyLogTypes(LoggerSettings& settings, const std::string& meaning)
{
    settings.types = parseLogTypes(meaning);
}

void applyLogStore(LoggerSettings& settings, const std::string& meaning)
{
    settings.store = meaning;
}

void applyLogRotate(LoggerSettings& settings, const std::string& meaning)
{
    settings.rotate = parseLogRotate(meaning, settings.rotate);
}

// logRotate is the last row: in classic, its value can end the reading with an exception.
constexpr ConfigKey keys[] = {
    {"mode", ConfigKind::mode, "modern", nullptr, nullptr, nullptr,
     "modern: the provider answers as today's CNG clients, among them .NET, expect it.\n"
     "classic, or no such line: as in versions without this key. In classic, lines must end\n"
     "in a line feed alone, and each line needs a \"=\"."},
    {"silentPrompt", ConfigKind::yesOrNo, "no", nullptr, nullptr, nullptr,
     "yes: show the PIN dialog also to programs that ask for none (NCRYPT_SILENT_FLAG).\n"
     "no: their calls fail when they need a PIN. Without effect in classic."},
    {"p11File", ConfigKind::library, "", nullptr, expandLibraryPath, nullptr,
     "The PKCS#11 library of the token: the full path of a 64-bit DLL, in UTF-8."},
    {"logLevel", ConfigKind::logLevel, "INFO", nullptr, nullptr, applyLogLevel,
     "TRACE, DEBUG, INFO, WARN, ERROR, or SEVERE. INFO: a record for each operation, and what\n"
     "went wrong. TRACE: everything that the module does. In classic, the level applies only\n"
     "to records marked SEV."},
    {"logTypes", ConfigKind::logTypes, "FILE", nullptr, nullptr, applyLogTypes,
     "FILE, CONSOLE, or both with a comma between them. Empty: no log. In classic, the log\n"
     "contains agreed secrets and the input of key derivations."},
    {"logStore", ConfigKind::folder, "~\\.norvanta-keywarden\\logs", expandLogStore,
     expandLogFolder, applyLogStore,
     "The folder of the log files, in the ANSI code page. ~ is the user's profile folder."},
    {"logRotate", ConfigKind::days, "7", nullptr, logRotateOrDefault, applyLogRotate,
     "The number of days to keep log files: digits only. In classic, this key is required:\n"
     "without it, the module does not load."},
};

// For a kind that one key has.
const ConfigKey& keyOf(ConfigKind kind)
{
    return *std::ranges::find(keys, kind, &ConfigKey::kind);
}

std::string meaningOf(Config& config, const ConfigKey& key, const std::string& profile)
{
    const bool modern = config.mode().behaviour() == Behaviour::modern;
    const Meaning meaning = modern ? key.modern : key.classic;
    const std::string& value = config.get(key.name);
    return meaning != nullptr ? meaning(value, profile) : value;
}

}  // namespace

std::span<const ConfigKey> configKeys()
{
    return keys;
}

std::string configuredLibrary(Config& config)
{
    return meaningOf(config, keyOf(ConfigKind::library), {});
}

std::string configuredLogStore(Config& config, const std::string& profile)
{
    return meaningOf(config, keyOf(ConfigKind::folder), profile);
}

void applyLogSettings(Config& config, const std::string& profile, LoggerSettings& settings)
{
    const Mode mode = config.mode();
    settings.gatesAllLevels = mode.logsByLevel();
    settings.survivesFailures = mode.survivesLogFailures();
    for (const ConfigKey& key : keys) {
        if (key.apply != nullptr)
            key.apply(settings, meaningOf(config, key, profile));
    }
}

}  // namespace NV
