// Listing, clean-up and writing of the log folder. Each record needs one listing and one open,
// write and close, so this uses the fastest system calls for them.

#include "logger/logger_file.h"

#include <windows.h>

#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "base/secret.h"
#include "base/text.h"
#include "logger/logger_rotation.h"

namespace NV {

namespace {

// The configured path. Split by hand, because std::filesystem::path is too slow for each record.
struct Folder {
    std::wstring name;  // ends in one separator
    std::wstring configuredName;

    std::wstring entry(std::wstring_view entryName) const
    {
        std::wstring path;
        path.reserve(name.size() + entryName.size());
        return path.append(name).append(entryName);
    }
};

Folder folderOf(const LoggerSettings& settings)
{
    constexpr std::wstring_view separators = L"\\/";
    const std::wstring configured = fromAnsi(settings.store + "\\" + settings.fileName);
    const size_t nameAt = configured.find_last_of(separators) + 1;
    // After "\\?\", the system does not accept several separators in a row.
    const size_t end = configured.find_last_not_of(separators, nameAt - 1) + 1;
    constexpr wchar_t separator = std::filesystem::path::preferred_separator;
    return {configured.substr(0, end) + separator, configured.substr(nameAt)};
}

// A system handle with the function that closes it.
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

HANDLE findFirst(const Folder& folder, WIN32_FIND_DATAW& entry)
{
    return FindFirstFileExW(folder.entry(L"*").c_str(), FindExInfoBasic, &entry,
                            FindExSearchNameMatch, nullptr, FIND_FIRST_EX_LARGE_FETCH);
}

std::filesystem::path pathOf(const Folder& folder)
{
    return std::filesystem::path(folder.entry(L"*")).parent_path();
}

[[noreturn]] void throwListingError(const Folder& folder, DWORD error)
{
    throw std::filesystem::filesystem_error(
        "directory_iterator::directory_iterator", pathOf(folder),
        std::error_code(static_cast<int>(error), std::system_category()));
}

HANDLE openListing(const Folder& folder, WIN32_FIND_DATAW& entry)
{
    HANDLE handle = findFirst(folder, entry);
    if (handle != INVALID_HANDLE_VALUE)
        return handle;
    const DWORD error = GetLastError();
    std::error_code ignored;
    if (error != ERROR_PATH_NOT_FOUND && error != ERROR_FILE_NOT_FOUND)
        throwListingError(folder, error);
    std::filesystem::create_directories(pathOf(folder), ignored);
    handle = findFirst(folder, entry);
    // The root of an empty drive exists but has no entry.
    if (handle == INVALID_HANDLE_VALUE && GetLastError() != ERROR_FILE_NOT_FOUND)
        throwListingError(folder, GetLastError());
    return handle;
}

void deleteOutdated(const Folder& folder, std::time_t now, int32_t daysKept)
{
    const FileName configured = splitFileName(folder.configuredName);
    WIN32_FIND_DATAW entry;
    const FindHandle listing(openListing(folder, entry));
    if (!listing.valid())
        return;
    do {
        const bool regular = (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
        if (regular && isOutdated(entry.cFileName, configured, now, daysKept))
            DeleteFileW(folder.entry(entry.cFileName).c_str());
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

bool append(const std::wstring& file, const std::string& text)
{
    const FileHandle handle(CreateFileW(file.c_str(), FILE_APPEND_DATA,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS,
                                        FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!handle.valid())
        return false;
    DWORD written = 0;
    const auto size = static_cast<DWORD>(text.size());
    return WriteFile(handle.get(), text.data(), size, &written, nullptr) != 0 && written == size;
}

}  // namespace

bool appendToLogFile(const LoggerSettings& settings, const LocalTime& time, std::string_view lines)
{
    const Folder folder = folderOf(settings);
    deleteOutdated(folder, time.seconds, settings.rotate);
    const FileName configured = splitFileName(folder.configuredName);
    std::string text = withCarriageReturns(lines);
    const WipedAtEnd wiped(text);
    return append(folder.entry(datedFileName(configured, time.calendar)), text);
}

}  // namespace NV
