// Changing values in a configuration file, and nothing else of it.

#pragma once

#include <filesystem>
#include <string>

#include "config/config.h"

namespace NV::tool {

class Output;

// The text with these values. Comments, blanks, the order and the line ends stay. Each line of a key gets
// the value; a key without a line gets one at the end.
std::string withValues(std::string text, const Settings& values);

// The same in the file itself, which keeps its access rights. A program that reads it meanwhile gets the
// old text or the new one, and so does one after a failure. Returns whether that changed it. Throws
// Failure.
bool editConfiguration(Output& out, const std::filesystem::path& file, const Settings& values);

}  // namespace NV::tool
