// Paths of Windows and paths of this machine. For the stand-in's own files.

#pragma once

#include <string>
#include <string_view>

namespace NV::stand_in {

// Backslashes become slashes; the prefix "\\?\" and the drive Z:, which is Wine's name for this
// machine's files, are removed.
std::string nativePath(std::wstring_view path);

}  // namespace NV::stand_in
