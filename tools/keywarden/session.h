// What all commands share: the output and the way to the provider.

#pragma once

#include <chrono>
#include <filesystem>

#include "output.h"

namespace NV::tool {

struct Session {
    Output out;
    // Use the system's ncrypt.dll instead of the module's own operation table.
    bool cng = false;
    // The module whose table is used. Empty: nvksprovider.dll beside this program or, if there is
    // none, the installed one.
    std::filesystem::path module;
    // How long the vendor's library may take; 0: the default of the command.
    unsigned timeout = 0;

    std::chrono::milliseconds limit(std::chrono::seconds standard) const
    {
        return timeout != 0 ? std::chrono::seconds(timeout) : standard;
    }
};

}  // namespace NV::tool
