// The logger's file output: one dated file for each day, opened and closed for each record.

#pragma once

#include <string_view>

#include "logger/logger_record.h"

namespace NV {

// Deletes the dated files in settings.store that are older than settings.rotate days, then appends
// `lines` (line feeds become CR LF, as in any text file) to the file of the day of `time`. Creates
// the folder when it does not exist. Returns whether the lines were written whole. Throws
// std::filesystem::filesystem_error when the folder cannot be listed; drops the lines when the file
// cannot be opened. settings.store must not be empty.
bool appendToLogFile(const LoggerSettings& settings, const LocalTime& time, std::string_view lines);

}  // namespace NV
