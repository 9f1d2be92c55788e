// The capture of the test program's own logger.

#include "log_capture.h"

#include <chrono>
#include <utility>

#include "local_time.h"

namespace NV::test {

namespace {

std::chrono::system_clock::time_point fixedTime;

std::chrono::system_clock::time_point now()
{
    return fixedTime;
}

}  // namespace

LogCapture::LogCapture() : settings_(loggerSettings()), recordCount_(loggerRecordCount())
{
    LoggerSettings settings;
    settings.store = narrowPath(folder());
    loggerSettings() = settings;
    loggerRecordCount() = 1;
}

LogCapture::~LogCapture()
{
    loggerSettings() = settings_;
    loggerRecordCount() = recordCount_;
}

void LogCapture::setTime(int year, int month, int day, int hour, int minute, int second,
                         int milliseconds)
{
    fixedTime = localTime(year, month, day, hour, minute, second, milliseconds);
    loggerSettings().now = &now;
}

LogLines LogCapture::takeLines()
{
    LogLines all = withoutBanner(lines());
    const auto known = static_cast<LogLines::difference_type>(std::exchange(taken_, all.size()));
    all.erase(all.begin(), all.begin() + known);
    return all;
}

}  // namespace NV::test
