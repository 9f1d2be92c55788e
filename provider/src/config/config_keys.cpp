// The table of the keys.

#include "config/config_keys.h"

#include "config/config_values.h"
#include "config/mode.h"

namespace NV {

namespace {

void applyLogLevel(LoggerSettings& settings, const std::string& value, const std::string&)
{
    settings.levelMask = parseLogLevel(value);
}

void applyLogTypes(LoggerSettings& settings, const std::string& value, const std::string&)
{
    settings.types = parseLogTypes(value);
}

void applyLogStore(LoggerSettings& settings, const std::string& value, const std::string& profile)
{
    settings.store = expandLogStore(value, profile);
}

void applyLogRotate(LoggerSettings& settings, const std::string& value, const std::string&)
{
    settings.rotate = parseLogRotate(value, settings.rotate);
}

// logRotate is the last row: its value can end the reading with an exception.
constexpr ConfigKey keys[] = {
    {"p11File", ConfigKind::library, "", nullptr,
     "The PKCS#11 library of the token: the full path of a 64-bit DLL, in UTF-8."},
    {"logLevel", ConfigKind::logLevel, "INFO", applyLogLevel,
     "TRACE, DEBUG, INFO, WARN, ERROR, or SEVERE. The level applies only to records marked\n"
     "SEV. To turn the log off, leave logTypes empty."},
    {"logTypes", ConfigKind::logTypes, "FILE", applyLogTypes,
     "FILE, CONSOLE, or both with a comma between them. Empty: no log. The log contains\n"
     "agreed secrets and the input of key derivations."},
    {"logStore", ConfigKind::folder, "~\\.norvanta-keywarden\\logs", applyLogStore,
     "The folder of the log files, in the ANSI code page. ~ is the user's profile folder."},
    {"logRotate", ConfigKind::days, "7", applyLogRotate,
     "The number of days to keep log files: digits only. Required: without this key the\n"
     "module does not load."},
};

}  // namespace

std::span<const ConfigKey> configKeys()
{
    return keys;
}

void applyLogSettings(Config& config, const std::string& profile, LoggerSettings& settings)
{
    for (const ConfigKey& key : keys) {
        if (key.apply != nullptr)
            key.apply(settings, config.get(key.name), profile);
    }
}

void applyMode(Config& config)
{
    const bool modern = config.get("mode") == "modern";
    setMode(Mode(modern ? Behaviour::modern : Behaviour::classic,
                 config.get("silentPrompt") == "yes"));
}

}  // namespace NV
