// The log files of the configured folder, and whether the module writes any.

#pragma once

#include <windows.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace NV::tool {

struct LogFile {
    std::filesystem::path path;
    std::string day;  // "2026-03-04", of its name
    std::filesystem::file_time_type changed;
};

// The log files of a folder, the one that was changed last at the end. A file whose name is not that of a
// day's log is none. Empty if the folder does not exist. Throws Failure if it cannot be read.
std::vector<LogFile> logFilesIn(const std::filesystem::path& folder);

// What the loaded configuration says of the log.
struct LogState {
    bool written = false;  // to files
    bool everything =
        true;  // whether the log has each PKCS#11 call: at TRACE, and always in classic
};
LogState configuredLog();

// The time in the form of LogRecord::time.
std::string timeText(const SYSTEMTIME& local);

// When this process began, in milliseconds as in LogRecord; 0 if the system does not tell.
int64_t beginningOfProcess();

// The name of the first PKCS#11 result that failed in the latest operation of a process:
// "CKR_PIN_INCORRECT", or a number without a name, "0x80000001". At the level ERROR, which does not show
// where an operation begins, it is the last one. Reads the end of the log that was changed last, and of
// it what was written since that time, in milliseconds as in LogRecord: an earlier process may have had
// the same number. Empty if there is no log, or it does not say.
std::string latestResult(const std::filesystem::path& folder, uint32_t process, int64_t since);

}  // namespace NV::tool
