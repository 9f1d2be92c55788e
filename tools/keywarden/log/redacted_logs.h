// The newest logs without what nobody else may see, for a report.

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "system/log_folder.h"

namespace NV::tool {

// A log, or its end if it is too long.
struct ChosenLog {
    LogFile file;
    uint64_t size = 0;   // bytes
    uint64_t begin = 0;  // the first byte to read
};

struct LogChoice {
    std::vector<ChosenLog> logs;  // the newest day first
    size_t older = 0;             // files of earlier days
    size_t dropped = 0;  // files of the days that were asked for, for which there was no room
};

// The logs from that day on, "2026-03-04", at most `room` bytes: the newest ones. A file that is gone by now
// is left out.
LogChoice chooseLogs(const std::vector<LogFile>& files, const std::string& firstDay, uint64_t room);

// How many lines a redacted log has, and of them those from which something was taken out (redaction.h).
struct RedactionCounts {
    size_t lines = 0;
    size_t values = 0;
    size_t messages = 0;
    size_t foreign = 0;
};

// Opens the log; throws Failure if it cannot be read. Then calls `begun`, and `take` with pieces of the
// redacted text. A line of which only the end is read is left out. `problem` is not empty if the reading
// failed after that: the rest is missing.
RedactionCounts readRedacted(const ChosenLog& log, const std::function<void()>& begun,
                             const std::function<void(std::string_view)>& take,
                             std::string& problem);

}  // namespace NV::tool
