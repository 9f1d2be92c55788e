// The logging part of the configuration: from the values of the file to the logger's settings.
// Called once, when the module is attached.

#pragma once

#include <cstdint>
#include <string>

#include "config/config.h"
#include "logger/logger.h"

namespace NV {

// Mask of a level name, in any case; that of "INFO" for an empty or unknown one.
uint32_t parseLogLevel(const std::string& value);

// Output bits of a comma-separated list of names, in any case; unknown names count for nothing.
uint32_t parseLogTypes(const std::string& value);

// Days of a text of decimal digits; `current` when another character is in it. Throws
// std::invalid_argument "invalid stoi argument" for the empty text and std::out_of_range
// "stoi argument out of range" for a number past 32 bits.
int32_t parseLogRotate(const std::string& value, int32_t current);

// The folder with every "~" replaced by the user profile's path.
std::string expandLogStore(const std::string& value, const std::string& profile);

// Assigns level, types and folder in any case, a missing key's default included; throws as
// parseLogRotate does.
void applyLogSettings(Config& config, const std::string& profile, LoggerSettings& settings);

}  // namespace NV
