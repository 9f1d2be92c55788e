// Who may change a file.

#pragma once

#include <windows.h>

#include <filesystem>

namespace NV::tool {

// Whether anyone but the current user, the system and its administrators may write the file, or into the
// folder. True if the system does not say, too.
bool othersMayWrite(const std::filesystem::path& path);

// The same of a file or folder that has this list. Null lets everyone do everything.
bool othersMayWrite(PACL list);

// Gives `to` the access rights of `from`. Returns false if the system refuses.
bool copyAccessRights(const std::filesystem::path& from, const std::filesystem::path& to);

}  // namespace NV::tool
