// The messages of the module's log that show nothing secret. What has none of these forms is not known to be
// harmless: "keywarden report" takes it out. Portable.

#pragma once

#include <string_view>
#include <vector>

#include "formats/log_pattern.h"

namespace NV::tool {

// Whether a message of that function is known. `values` gets its values.
bool isKnown(std::string_view function, std::string_view message, std::vector<LogValue>& values);

// Whether one of the words, which have one blank between them, is that word.
bool hasWord(std::string_view words, std::string_view word);

}  // namespace NV::tool
