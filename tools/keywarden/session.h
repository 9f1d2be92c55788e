// What all commands share: the output, the way to the provider, and the program's exit codes.

#pragma once

#include <filesystem>

#include "output.h"

namespace NV::tool {

// The exit codes for failure; success is 0.
inline constexpr int exitFailed = 1;  // the command could not do what was asked
inline constexpr int exitUsage = 2;   // the arguments are wrong

struct Session {
    Output out;
    // Use the system's ncrypt.dll instead of the module's own operation table.
    bool cng = false;
    // The module whose table is used. Empty: nvksprovider.dll beside this program or, if there is
    // none, the installed one.
    std::filesystem::path module;
};

}  // namespace NV::tool
