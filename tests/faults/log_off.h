// Switches the logger that is linked into the program off: a thousand cases with all their lines
// would take minutes, and the lines have tests of their own.

#pragma once

#include "logger/logger.h"

namespace NV::test {

class LogOff {
public:
    LogOff() : settings_(loggerSettings()) { loggerSettings().types = 0; }
    ~LogOff() { loggerSettings() = settings_; }
    LogOff(const LogOff&) = delete;
    LogOff& operator=(const LogOff&) = delete;

private:
    LoggerSettings settings_;
};

}  // namespace NV::test
