// Finds and reads the configuration file: the user's, or the machine's.

#pragma once

#include <filesystem>
#include <string>

namespace NV {

struct ConfigFile {
    std::string path;     // for messages
    bool opened = false;  // false: `text` is empty
    std::string text;     // its bytes
};

// Reads a file. A string is a path in the ANSI code page.
ConfigFile readConfigFile(const std::string& path);
ConfigFile readConfigFile(const std::filesystem::path& path);

// Reads the user's file, or, if that does not exist, the one in the module's folder. If that does not
// exist either, or if the user's file cannot be opened, the result is the user's file, not opened.
// `userFile` is in the ANSI code page; `module` is the module's own file.
ConfigFile readConfigFile(const std::string& userFile, const std::filesystem::path& module);

}  // namespace NV
