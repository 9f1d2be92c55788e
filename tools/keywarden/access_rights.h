// Who may change a file.

#pragma once

#include <filesystem>

namespace NV::tool {

// Whether everyone, all users or all who are logged on may write the file, or into the folder. False if
// the system does not say.
bool othersMayWrite(const std::filesystem::path& path);

// Gives `to` the access rights of `from`. Returns false if the system refuses.
bool copyAccessRights(const std::filesystem::path& from, const std::filesystem::path& to);

}  // namespace NV::tool
