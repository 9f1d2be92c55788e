// Where the user's configuration file is.

#pragma once

#include <filesystem>
#include <string>

namespace NV {

// The user's profile folder, in the ANSI code page; empty if the environment does not name it.
std::string userProfile();

// The configuration file of the user with this profile folder, in the encoding of the argument.
std::string configurationFile(const std::string& profile);
std::filesystem::path configurationFile(const std::filesystem::path& profile);

}  // namespace NV
