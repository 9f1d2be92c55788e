// Files and folders, by the functions of POSIX.

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <windows.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "last_error.h"
#include "paths.h"

namespace {

using NV::stand_in::failed;
using NV::stand_in::nativePath;
using NV::stand_in::systemError;

// A file that is missing and a folder above it that is missing are two errors of Windows.
LONG errorOf(const std::string& path, int number)
{
    if (number != ENOENT)
        return systemError(number);
    const size_t end = path.find_last_of('/');
    struct stat folder {};
    const bool folderExists =
        end == std::string::npos || end == 0 || stat(path.substr(0, end).c_str(), &folder) == 0;
    return folderExists ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND;
}

DWORD attributesOf(const struct stat& entry)
{
    if (S_ISDIR(entry.st_mode))
        return FILE_ATTRIBUTE_DIRECTORY;
    return (entry.st_mode & S_IWUSR) == 0 ? FILE_ATTRIBUTE_READONLY : FILE_ATTRIBUTE_NORMAL;
}

// A search that FindFirstFileExW began.
struct Search {
    struct Closer {
        void operator()(DIR* open) const { closedir(open); }
    };
    std::string folder;
    std::unique_ptr<DIR, Closer> entries;
};

BOOL nextEntry(Search& search, WIN32_FIND_DATAW& entry)
{
    errno = 0;
    const dirent* found = readdir(search.entries.get());
    if (found == nullptr)
        return failed(errno == 0 ? ERROR_NO_MORE_FILES : systemError(errno));
    struct stat status {};
    const std::string path = search.folder + "/" + found->d_name;
    // An entry that is deleted between the two calls is given as a file.
    entry.dwFileAttributes =
        stat(path.c_str(), &status) == 0 ? attributesOf(status) : FILE_ATTRIBUTE_NORMAL;
    const int size = static_cast<int>(std::strlen(found->d_name));
    const int length = MultiByteToWideChar(CP_UTF8, 0, found->d_name, size, entry.cFileName,
                                           static_cast<int>(MAX_PATH) - 1);
    entry.cFileName[length] = L'\0';
    return TRUE;
}

// The open files of this process, and what their owners allow others.
struct OpenFile {
    dev_t device;
    ino_t number;
    DWORD access;
    DWORD share;
};

struct OpenFiles {
    std::mutex lock;
    std::map<HANDLE, OpenFile> byHandle;
};

OpenFiles& openFiles()
{
    static OpenFiles files;
    return files;
}

// The kinds of sharing that an access needs.
DWORD neededSharing(DWORD access)
{
    const bool reads = (access & GENERIC_READ) != 0;
    const bool writes = (access & (GENERIC_WRITE | FILE_APPEND_DATA)) != 0;
    const bool deletes = (access & DELETE) != 0;
    return (reads ? FILE_SHARE_READ : 0) | (writes ? FILE_SHARE_WRITE : 0) |
           (deletes ? FILE_SHARE_DELETE : 0);
}

// Whether the file's open handles allow the access, and the share allows theirs.
bool sharingAllows(const struct stat& file, DWORD access, DWORD share)
{
    const std::lock_guard guard(openFiles().lock);
    return std::ranges::none_of(openFiles().byHandle, [&](const auto& entry) {
        const OpenFile& open = entry.second;
        return open.device == file.st_dev && open.number == file.st_ino &&
               ((neededSharing(access) & ~open.share) != 0 ||
                (neededSharing(open.access) & ~share) != 0);
    });
}

constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// File handles are the numbers of POSIX, and one, so that none is null.
HANDLE asHandle(int file)
{
    return reinterpret_cast<HANDLE>(intptr_t{file} + 1);  // NOLINT(performance-no-int-to-ptr)
}

int asFile(HANDLE handle)
{
    return static_cast<int>(reinterpret_cast<intptr_t>(handle) - 1);
}

}  // namespace

DWORD GetFileAttributesW(LPCWSTR name)
{
    const std::string path = nativePath(name);
    struct stat entry {};
    // There is no network.
    const bool onNetwork = path.starts_with("//");
    if (!onNetwork && stat(path.c_str(), &entry) == 0)
        return attributesOf(entry);
    failed(onNetwork ? ERROR_BAD_NET_NAME : errorOf(path, errno));
    return INVALID_FILE_ATTRIBUTES;
}

BOOL SetFileAttributesW(LPCWSTR name, DWORD attributes)
{
    const std::string path = nativePath(name);
    const mode_t mode = (attributes & FILE_ATTRIBUTE_READONLY) != 0 ? 0444 : 0644;
    return chmod(path.c_str(), mode) == 0 ? TRUE : failed(errorOf(path, errno));
}

BOOL DeleteFileW(LPCWSTR name)
{
    const std::string path = nativePath(name);
    struct stat entry {};
    // Windows refuses a file that must not be written, whatever its folder allows.
    const bool exists = stat(path.c_str(), &entry) == 0;
    if (exists && (attributesOf(entry) & FILE_ATTRIBUTE_READONLY) != 0)
        return failed(ERROR_ACCESS_DENIED);
    if (exists && !sharingAllows(entry, DELETE, shareAll))
        return failed(ERROR_SHARING_VIOLATION);
    return unlink(path.c_str()) == 0 ? TRUE : failed(errorOf(path, errno));
}

HANDLE FindFirstFileExW(LPCWSTR pattern, FINDEX_INFO_LEVELS, void* entry, FINDEX_SEARCH_OPS, void*,
                        DWORD)
{
    std::string folder = nativePath(pattern);
    folder.erase(folder.find_last_of('/'));
    auto search = std::make_unique<Search>();
    search->folder = folder.empty() ? "/" : folder;
    search->entries.reset(opendir(search->folder.c_str()));
    if (search->entries == nullptr) {
        failed(errno == ENOENT ? ERROR_PATH_NOT_FOUND : errorOf(folder, errno));
        return INVALID_HANDLE_VALUE;
    }
    // Every folder has "." in it.
    nextEntry(*search, *static_cast<WIN32_FIND_DATAW*>(entry));
    return search.release();
}

BOOL FindNextFileW(HANDLE search, WIN32_FIND_DATAW* entry)
{
    return nextEntry(*static_cast<Search*>(search), *entry);
}

BOOL FindClose(HANDLE search)
{
    const std::unique_ptr<Search> owned(static_cast<Search*>(search));
    return TRUE;
}

HANDLE CreateFileW(LPCWSTR name, DWORD access, DWORD share, SECURITY_ATTRIBUTES*, DWORD disposition,
                   DWORD, HANDLE)
{
    const std::string path = nativePath(name);
    int flags = O_CLOEXEC;
    if ((access & FILE_APPEND_DATA) != 0)
        flags |= O_WRONLY | O_APPEND;
    else
        flags |= (access & GENERIC_WRITE) != 0 ? O_RDWR : O_RDONLY;
    if (disposition == OPEN_ALWAYS)
        flags |= O_CREAT;
    struct stat entry {};
    const bool existed = stat(path.c_str(), &entry) == 0;
    // Root may open any file; on Windows nobody may write this one.
    const bool writes = (access & (FILE_APPEND_DATA | GENERIC_WRITE)) != 0;
    if (existed && writes && (attributesOf(entry) & FILE_ATTRIBUTE_READONLY) != 0) {
        failed(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
    }
    if (existed && !sharingAllows(entry, access, share)) {
        failed(ERROR_SHARING_VIOLATION);
        return INVALID_HANDLE_VALUE;
    }
    const int file = open(path.c_str(), flags, 0644);
    if (file < 0) {
        failed(errorOf(path, errno));
        return INVALID_HANDLE_VALUE;
    }
    // As on Windows, where opening succeeds and yet leaves this error.
    if (disposition == OPEN_ALWAYS)
        SetLastError(existed ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
    fstat(file, &entry);
    const std::lock_guard guard(openFiles().lock);
    openFiles().byHandle[asHandle(file)] = {entry.st_dev, entry.st_ino, access, share};
    return asHandle(file);
}

BOOL WriteFile(HANDLE file, LPCVOID bytes, DWORD size, DWORD* written, void*)
{
    const ssize_t result = write(asFile(file), bytes, size);
    *written = result > 0 ? static_cast<DWORD>(result) : 0;
    return result >= 0 ? TRUE : failed(systemError(errno));
}

BOOL CloseHandle(HANDLE file)
{
    {
        const std::lock_guard guard(openFiles().lock);
        openFiles().byHandle.erase(file);
    }
    return close(asFile(file)) == 0 ? TRUE : failed(ERROR_INVALID_HANDLE);
}
