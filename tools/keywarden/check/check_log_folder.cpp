// The step for the folder of the log files.

#include <windows.h>

#include <filesystem>
#include <string>
#include <system_error>

#include "check/check.h"
#include "config/mode.h"
#include "text.h"

namespace NV::tool {

namespace {

// With this many files, a call of the provider becomes noticeably slower.
constexpr size_t manyFiles = 1000;

// Creates and deletes a file there. ERROR_SUCCESS, or the system's error.
DWORD tryToWriteInto(const std::filesystem::path& folder)
{
    const std::filesystem::path probe =
        folder / (L"keywarden-check-" + std::to_wstring(GetCurrentProcessId()) + L".tmp");
    HANDLE file = CreateFileW(probe.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                              FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return GetLastError();
    CloseHandle(file);
    return ERROR_SUCCESS;
}

size_t countFiles(const std::filesystem::path& folder)
{
    size_t count = 0;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error))
        ++count;
    return count;
}

bool isOnNetwork(const std::filesystem::path& folder)
{
    const std::wstring root = folder.root_path().wstring();
    return root.starts_with(L"\\\\") || GetDriveTypeW(root.c_str()) == DRIVE_REMOTE;
}

}  // namespace

void checkLogFolder(Findings& findings)
{
    constexpr const char* name = "log-folder";
    if (!findings.configurationRead) {
        findings.skip(name, "the configuration could not be read");
        return;
    }
    const std::filesystem::path& folder = findings.logFolder;
    if (folder.empty()) {
        findings.ok(name, "no log files: logTypes lacks FILE, or logStore is empty");
        return;
    }
    findings.begin(name);
    std::error_code error;
    const bool made = std::filesystem::create_directories(folder, error);
    if (!std::filesystem::is_directory(folder, error))
        findings.fail(name, toUtf8(folder) + " does not exist and cannot be created",
                      std::string(mode().survivesLogFailures()
                                      ? "Without the folder, there is no log."
                                      : "Without the folder, every call of the provider fails.") +
                          " Choose another logStore, or leave logTypes empty.");
    else if (const DWORD refusal = tryToWriteInto(folder); refusal != ERROR_SUCCESS)
        findings.warn(name,
                      "no file can be created in " + toUtf8(folder) + ": " + errorText(refusal),
                      "Records are dropped. Grant the user write access, or choose another "
                      "logStore.");
    else if (!folder.is_absolute())
        findings.warn(
            name, toUtf8(folder) + " is not a full path, so each program logs to a different place",
            "Begin logStore with a drive, or with ~ for the user's profile.");
    else if (const size_t files = countFiles(folder); files > manyFiles)
        findings.warn(
            name, toUtf8(folder) + " contains " + std::to_string(files) + " files",
            "The provider reads the list of files with each record that it writes, so every "
            "call is slow. Delete old files, or choose another logStore.");
    else if (isOnNetwork(folder))
        findings.warn(name, toUtf8(folder) + " is on a network drive",
                      "Every call of the provider waits for the drive, and hangs if it cannot be "
                      "reached. Choose a folder of this computer.");
    else
        findings.ok(name, toUtf8(folder) + " is writable");
    if (made)
        std::filesystem::remove(folder, error);
}

}  // namespace NV::tool
