// The clock of the logger, which is called once for each record that is written.

#include "log_event.h"

#include <system_error>

#include "config/mode.h"

namespace NV::test {

namespace {

struct State {
    size_t records = 0;
    size_t nth = 0;
    Extent extent = Extent::once;
    bool struck = false;
    LogCause cause = LogCause::clock;
    std::string folder;
    std::string file;
};

State state;

bool strikes()
{
    ++state.records;
    const bool later = state.extent == Extent::fromThenOn && state.records > state.nth;
    return state.nth != 0 && (state.records == state.nth || later);
}

std::chrono::system_clock::time_point now()
{
    const bool struck = strikes();
    state.struck |= struck;
    if (state.cause == LogCause::folder)
        loggerSettings().store = struck ? state.file : state.folder;
    else if (struck)
        throw std::filesystem::filesystem_error("the log folder",
                                                std::make_error_code(std::errc::permission_denied));
    return std::chrono::system_clock::now();
}

}  // namespace

LogEvent::LogEvent(LogCause cause) : cause_(cause), settings_(loggerSettings())
{
    LoggerSettings settings;
    settings.types = 0;
    settings.store = narrowPath(folder_.path());
    settings.now = &now;
    settings.gatesAllLevels = mode().logsByLevel();
    settings.survivesFailures = mode().survivesLogFailures();
    loggerSettings() = settings;
    // No banner: it would be part of a first record only.
    if (loggerRecordCount() == 0)
        loggerRecordCount() = 1;
    const std::filesystem::path file = folder_.path() / "file";
    writeFile(file, "");
    state = {.cause = cause, .folder = settings.store, .file = narrowPath(file)};
}

LogEvent::~LogEvent()
{
    loggerSettings() = settings_;
}

void LogEvent::arm(size_t nth, Extent extent)
{
    state.records = 0;
    state.nth = nth;
    state.extent = extent;
    state.struck = false;
    // The record that tells of lost ones would be one more.
    loggerLostRecords() = 0;
    if (cause_ == LogCause::clock)
        quiet_.begin();
    loggerSettings().types = cause_ == LogCause::clock ? logToConsole : logToFile;
}

bool LogEvent::disarm()
{
    loggerSettings().types = 0;
    quiet_.end();
    return state.struck;
}

}  // namespace NV::test
