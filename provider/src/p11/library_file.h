// The file of a PKCS#11 library: whether it exists, and how each behaviour loads it. For P11Module, and for
// the tool, which tells why a library does not load.

#pragma once

#include <string>

#include "base/loaded_library.h"

namespace NV {

// Throws std::filesystem::filesystem_error when the file system cannot tell.
bool fileExists(const std::wstring& path);

// The path is UTF-8. Null, and the thread's last error, if the system cannot load the library.
struct LibraryLoading {
    bool absolutePathAlone;  // other paths are refused before
    LoadedLibrary (*load)(const std::string& u8Path);
};

const LibraryLoading& libraryLoading();

}  // namespace NV
