// Listing, clean-up and writing of the log folder with the system's own calls: a record costs one
// listing and one open, write and close, so each of them is asked for in its cheapest form.

#include "logger_file.h"

#include <windows.h>

#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "logger_rotation.h"
#include "secret.h"

namespace NV {

namespace {

struct Folder {
    std::filesystem::path path;
    std::wstring configuredName;
};

std::wstring widen(const std::string& ansi)
{
    const int size = static_cast<int>(ansi.size());
    const int length = MultiByteToWideChar(CP_ACP, 0, ansi.data(), size, nullptr, 0);
    std::wstring wide(static_cast<size_t>(length), L'\0');
    MultiByteToWideChar(CP_ACP, 0, ansi.data(), size, wide.data(), length);
    return wide;
}

Folder folderOf(const LoggerSettings& settings)
{
    const std::filesystem::path configured = widen(settings.store + "\\" + settings.fileName);
    return {configured.parent_path(), configured.filename().wstring()};
}

// A handle of the system with the function that ends it.
template <BOOL(WINAPI* close)(HANDLE)>
class OwnedHandle {
public:
    explicit OwnedHandle(HANDLE handle) : handle_(handle) {}
    OwnedHandle(const OwnedHandle&) = delete;
    OwnedHandle& operator=(const OwnedHandle&) = delete;
    ~OwnedHandle()
    {
        if (valid())
            close(handle_);
    }
    bool valid() const { return handle_ != INVALID_HANDLE_VALUE; }
    HANDLE get() const { return handle_; }

private:
    HANDLE handle_;
};

using FindHandle = OwnedHandle<&FindClose>;
using FileHandle = OwnedHandle<&CloseHandle>;

HANDLE findFirst(const std::filesystem::path& folder, WIN32_FIND_DATAW& entry)
{
    return FindFirstFileExW((folder / L"*").c_str(), FindExInfoBasic, &entry, FindExSearchNameMatch,
                            nullptr, FIND_FIRST_EX_LARGE_FETCH);
}

[[noreturn]] void throwListingError(const std::filesystem::path& folder, DWORD error)
{
    throw std::filesystem::filesystem_error(
        "directory_iterator::directory_iterator", folder,
        std::error_code(static_cast<int>(error), std::system_category()));
}

HANDLE openListing(const std::filesystem::path& folder, WIN32_FIND_DATAW& entry)
{
    HANDLE handle = findFirst(folder, entry);
    if (handle != INVALID_HANDLE_VALUE)
        return handle;
    const DWORD error = GetLastError();
    std::error_code ignored;
    if (error != ERROR_PATH_NOT_FOUND && error != ERROR_FILE_NOT_FOUND)
        throwListingError(folder, error);
    std::filesystem::create_directories(folder, ignored);
    handle = findFirst(folder, entry);
    // The root of an empty drive is there and has not one entry.
    if (handle == INVALID_HANDLE_VALUE && GetLastError() != ERROR_FILE_NOT_FOUND)
        throwListingError(folder, GetLastError());
    return handle;
}

void deleteOutdated(const Folder& folder, std::time_t now, int32_t daysKept)
{
    const FileName configured = splitFileName(folder.configuredName);
    WIN32_FIND_DATAW entry;
    const FindHandle listing(openListing(folder.path, entry));
    if (!listing.valid())
        return;
    do {
        const bool regular = (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
        if (regular && isOutdated(entry.cFileName, configured, now, daysKept))
            DeleteFileW((folder.path / entry.cFileName).c_str());
    } while (FindNextFileW(listing.get(), &entry) != 0);
}

std::string withCarriageReturns(std::string_view lines)
{
    std::string text;
    text.reserve(lines.size() + 8);
    for (const char c : lines) {
        if (c == '\n')
            text.push_back('\r');
        text.push_back(c);
    }
    return text;
}

void append(const std::filesystem::path& file, const std::string& text)
{
    const FileHandle handle(CreateFileW(file.c_str(), FILE_APPEND_DATA,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS,
                                        FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!handle.valid())
        return;
    DWORD written = 0;
    WriteFile(handle.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

}  // namespace

void appendToLogFile(const LoggerSettings& settings, const LocalTime& time, std::string_view lines)
{
    const Folder folder = folderOf(settings);
    deleteOutdated(folder, time.seconds, settings.rotate);
    const FileName configured = splitFileName(folder.configuredName);
    std::string text = withCarriageReturns(lines);
    const WipedAtEnd wiped(text);
    append(folder.path / datedFileName(configured, time.calendar), text);
}

}  // namespace NV
