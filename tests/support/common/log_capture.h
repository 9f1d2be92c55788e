// Turns the logger that is linked into the test program towards a folder of the test's own. Used
// by tests of the module's objects; tests of the DLL use a Profile, since the DLL has its own logger.

#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>

#include "folder.h"
#include "logger/logger.h"
#include "trace_log.h"

namespace NV::test {

// While it lives, records go to files in its folder, with all levels and 7 days kept, without a
// banner, and by the system's clock unless setTime was called. The previous settings, record count
// and clock come back at the end. One at a time.
class LogCapture {
public:
    LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    ~LogCapture();

    const std::filesystem::path& folder() const { return folder_.path(); }

    // The next record is the process's first again.
    void expectBanner() { loggerRecordCount() = 0; }

    // The logger's clock stops at this local time, and milliseconds past it.
    void setTime(int year, int month, int day, int hour = 12, int minute = 0, int second = 0,
                 int milliseconds = 0);

    // All lines so far, banner included.
    LogLines lines() const { return readLog(folder()); }

    // The lines so far without the banner; later calls leave them out.
    LogLines takeLines();

private:
    TemporaryFolder folder_;
    LoggerSettings settings_;
    uint32_t recordCount_;
    size_t taken_ = 0;
};

}  // namespace NV::test
