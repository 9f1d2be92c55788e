// The failing log: the nth record cannot be written, because the log folder cannot be listed, and
// the level function throws std::filesystem::filesystem_error.

#pragma once

#include <filesystem>

#include "event.h"
#include "folder.h"
#include "logger/logger.h"
#include "quiet_output.h"

namespace NV::test {

// What the failing record meets.
enum class LogCause {
    clock,   // the logger's clock throws the error itself, which costs nothing but the throw
    folder,  // the folder is a file: the error is the logger's own
};

// While it is armed, every record is written: with `clock` to the console, whose output is discarded;
// with `folder` to a file. Otherwise the log is off. One at a time.
class LogEvent final : public Event {
public:
    explicit LogEvent(LogCause cause);
    ~LogEvent() override;
    LogEvent(const LogEvent&) = delete;
    LogEvent& operator=(const LogEvent&) = delete;

    void arm(size_t nth, Extent extent) override;
    bool disarm() override;
    const char* name() const override { return "record"; }

private:
    LogCause cause_;
    LoggerSettings settings_;
    TemporaryFolder folder_;
    QuietOutput quiet_;
};

}  // namespace NV::test
