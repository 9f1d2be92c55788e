// Looking for a library's file, and the two ways of loading it.

#include "p11/library_file.h"

#include <windows.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <system_error>

#include "base/text.h"
#include "config/mode.h"

namespace NV {

namespace {

// Compat: unlike the look at the file before, this makes each byte a character. A path outside ASCII that
// exists does not load, and the log shows both lines.
LoadedLibrary loadFromAnywhere(const std::string& u8Path)
{
    const std::wstring path = widenBytes(u8Path);
    LoadedLibrary library(LoadLibraryExW(path.c_str(), nullptr, 0));
    if (library == nullptr)
        library.reset(LoadLibraryW(path.c_str()));
    return library;
}

// The DLLs that it needs come from its own folder, the program's and the system's: neither the current
// folder nor PATH can plant one.
LoadedLibrary loadFromTrustedFolders(const std::string& u8Path)
{
    const std::filesystem::path path(fromUtf8(u8Path));
    // The search flags need the system's own separator.
    return LoadedLibrary(
        LoadLibraryExW(std::filesystem::path(path).make_preferred().wstring().c_str(), nullptr,
                       LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_DEFAULT_DIRS));
}

}  // namespace

bool fileExists(const std::wstring& path)
{
    if (GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES)
        return true;
    const DWORD error = GetLastError();
    constexpr DWORD missing[] = {ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND, ERROR_BAD_NETPATH,
                                 ERROR_INVALID_NAME};
    if (std::ranges::find(missing, error) != std::end(missing))
        return false;
    throw std::filesystem::filesystem_error(
        "exists", path, std::error_code(static_cast<int>(error), std::system_category()));
}

const LibraryLoading& libraryLoading()
{
    static constexpr LibraryLoading classic = {false, loadFromAnywhere};
    static constexpr LibraryLoading modern = {true, loadFromTrustedFolders};
    return mode().restrictsLibrarySearch() ? modern : classic;
}

}  // namespace NV
