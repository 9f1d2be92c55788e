// The capture of the test program's own logger.

#include "log_capture.h"

#include <chrono>

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
    const LogLines all = withoutBanner(lines());
    LogLines fresh(all.begin() + static_cast<LogLines::difference_type>(taken_), all.end());
    taken_ = all.size();
    return fresh;
}

}  // namespace NV::test
