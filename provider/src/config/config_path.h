// Where the configuration files are: the user's, and the machine's.

#pragma once

#include <filesystem>
#include <string>

namespace NV {

// The user's profile folder, in the ANSI code page; empty if the environment does not name it.
std::string userProfile();

// The configuration file of the user with this profile folder, in the encoding of the argument.
std::string configurationFile(const std::string& profile);
std::filesystem::path configurationFile(const std::filesystem::path& profile);

// The configuration file of the machine, for users without one: in the folder of the module, whose file
// is given.
std::filesystem::path machineConfigurationFile(const std::filesystem::path& module);

// Whether a path names a place whatever the current folder and drive are: a drive with its root, or a
// share, with either slash.
bool isAbsolutePath(const std::wstring& path);

}  // namespace NV
