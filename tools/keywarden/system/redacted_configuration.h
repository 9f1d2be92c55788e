// A configuration file as it may be shown to others.

#pragma once

#include <string>
#include <string_view>

namespace NV::tool {

// The text with the lines of known keys as they are, byte for byte, and the comments that "keywarden init"
// writes. Of all other lines only a key is left: somebody may have noted a PIN there.
std::string redactedConfiguration(std::string_view text);

// What "keywarden check" says of lines of that file, without them: "line 3: (taken out)" for
// "line 3: \"pin=1234\" has no \"=\"".
std::string withoutQuotedLines(std::string_view text);

}  // namespace NV::tool
