// What "keywarden report" puts into its ZIP file.

#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

#include "base/encoding.h"

namespace NV::tool {

struct Session;

struct ReportFile {
    std::string name;
    uint64_t bytes;
    std::string what;  // one line
};

struct SupportReport {
    std::vector<ReportFile> files;
    // What is missing, and why; what was cut off.
    std::vector<std::string> notes;
    Bytes archive;
};

// Collects everything. What cannot be read is a note. The log is that of the last `days`, up to `now`,
// local time. Throws Failure if the archive would get too large.
SupportReport collectReport(Session& session, unsigned days, const SYSTEMTIME& now);

// What the files still show, for the list of contents.
extern const char* const whatReportsShow;

}  // namespace NV::tool
