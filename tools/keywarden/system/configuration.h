// The user's configuration file as this program writes it. What it reads of one goes through the
// module's own parser.

#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace NV::tool {

// %USERPROFILE%\.norvanta-keywarden\nvksprovider.conf. Throws Failure when USERPROFILE is not set.
std::filesystem::path configurationFile();

// Reads the file into this program's Config, as the module does. Throws Failure when it is not there
// or has a line that the module does not take.
void loadConfiguration();

// The folder that the loaded configuration names for the log, "~" replaced. Throws Failure when it
// names none.
std::filesystem::path configuredLogFolder();

// The values of a new file, UTF-8.
struct NewConfiguration {
    std::string p11File;
    std::string logStore = "~\\.norvanta-keywarden\\logs";
    std::string logLevel = "INFO";
    std::string logTypes = "FILE";
    int logRotate = 7;
};

// The text of the file: every key, each explained in comments, lines ended by a line feed alone.
// The module takes p11File for UTF-8 and logStore for text of the ANSI code page, so the text is
// bytes of both. Throws Failure when p11File is not ASCII, since the module loads no such library,
// when logStore has a character that the code page lacks or a "~" that is not its first, or when a
// value would not come back as it is (a line feed in it, a space at its end).
std::string configurationText(const NewConfiguration& configuration);

// Writes the text beside the file and moves it into place, so that no reader ever sees half of it.
// The folder is made if it is missing. Throws Failure.
void writeConfiguration(const std::filesystem::path& file, const std::string& text);

// PKCS#11 libraries that are there, from the places where vendors install them.
struct FoundLibrary {
    std::string product;
    std::filesystem::path file;
};
std::vector<FoundLibrary> findLibraries();

}  // namespace NV::tool
