// The user's configuration file as this program writes it. The program reads one through the
// module's own parser.

#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "config/config.h"

namespace NV::tool {

// %USERPROFILE%\.norvanta-keywarden\nvksprovider.conf. Throws Failure if USERPROFILE is not set.
std::filesystem::path configurationFile();

// nvksprovider.conf beside the module, for users without a file of their own.
std::filesystem::path configurationOfAllUsers();

// Which of the two files the module reads.
enum class ConfigurationOf { user, allUsers, nobody };
ConfigurationOf configurationThatHolds();
// That file; the user's, if there is none.
std::filesystem::path configurationInUse();

// Reads that file into this program's Config, as the module does. Throws Failure if it does not
// exist or contains a line that the module rejects.
void loadConfiguration();

// The log folder of the loaded configuration, expanded. Throws Failure if there is none.
std::filesystem::path configuredLogFolder();

// The names that logLevel can have, and "FIRST, SECOND, or THIRD" of such names.
std::vector<std::string> levelNames();
std::string choiceOf(const std::vector<std::string>& names);

// The values of a new file, UTF-8, a value for each key of the module's table. The library's path
// is empty.
Settings newConfiguration();

// The text of the file: every key, each explained in comments, with line feeds as line ends. The
// module reads p11File as UTF-8 and logStore in the ANSI code page, so the text contains bytes of
// both. Throws Failure if p11File is not ASCII in a classic file, because the module does not load such
// a library in classic, if logStore has a character that the code page lacks or a "~" that is not its first character, or if
// the module would read a value differently (a line feed in it, a space at its end). A file of all users
// can have %NAME% in p11File, which only modern expands.
std::string configurationText(const Settings& values,
                              ConfigurationOf whose = ConfigurationOf::user);

// Creates the folder of a configuration file if it is missing. Throws Failure.
void makeFolderOf(const std::filesystem::path& configuration);

// The installed PKCS#11 libraries, from the places where vendors install them.
struct FoundLibrary {
    std::string product;
    std::filesystem::path file;
    bool writableByOthers;  // the file or its folder: others could put their own there
};
std::vector<FoundLibrary> findLibraries();

}  // namespace NV::tool
