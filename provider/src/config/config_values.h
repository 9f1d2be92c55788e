// The values of the configuration file, from text to setting. Portable, without logging.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "logger/logger.h"

namespace NV {

// A name that a value can have, and the bits that it means.
struct NamedBits {
    std::string_view name;
    uint32_t bits;
};

inline constexpr NamedBits logLevelNames[] = {{"TRACE", logMaskTrace}, {"DEBUG", logMaskDebug},
                                              {"INFO", logMaskInfo},   {"WARN", logMaskWarn},
                                              {"ERROR", logMaskError}, {"SEVERE", logMaskSevere}};
inline constexpr NamedBits logTypeNames[] = {{"CONSOLE", logToConsole}, {"FILE", logToFile}};

// Whether the value is one of the six level names, in any case.
bool isLogLevel(const std::string& value);

// Mask of a level name, in any case. An empty or unknown name gives the mask of "INFO".
uint32_t parseLogLevel(const std::string& value);

// Output bits of a comma-separated list of names, in any case. Unknown names are ignored.
uint32_t parseLogTypes(const std::string& value);

// Days of a text of decimal digits; `current` if the text contains another character. Throws
// std::invalid_argument "invalid stoi argument" for the empty text and std::out_of_range
// "stoi argument out of range" for a number past 32 bits.
int32_t parseLogRotate(const std::string& value, int32_t current);

// The value if parseLogRotate takes it for a number of days, "7" otherwise.
std::string logRotateOrDefault(const std::string& value, const std::string& profile);

// The folder with every "~" replaced by the user profile's path.
std::string expandLogStore(const std::string& value, const std::string& profile);

}  // namespace NV
