// The versions of Windows and of files.

#pragma once

#include <filesystem>
#include <string>

namespace NV::tool {

// "10.0.19045", or with the number of the update if the system says it: "10.0.19045.3803".
std::string windowsVersion();

// "Windows 10 Pro", as the registry has it; empty if it has none.
std::string windowsName();

// The version of the file's resource, "1.2.3.4"; empty if it has none, or is no program. Runs nothing
// of the file.
std::string fileVersion(const std::filesystem::path& file);

}  // namespace NV::tool
