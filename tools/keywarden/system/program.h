// This program's own file.

#pragma once

#include <filesystem>

namespace NV::tool {

// The full path of the running program.
std::filesystem::path ownProgram();

}  // namespace NV::tool
