// Text that is safe to print: what a token, a certificate or a log contains can otherwise move the
// cursor of a terminal, hide text, or reverse its order.

#pragma once

#include <string>
#include <string_view>

namespace NV::tool {

// The text with these characters written as escapes, such as \x1B or \u202E: control characters (C0,
// DEL, C1), line and paragraph separators, and characters that change the direction of text. A byte
// that is not valid UTF-8 is written as \xHH.
std::string printable(std::string_view text);

// A JSON text with the same characters as JSON escapes, except for C0, which are part of its layout
// or escaped already. The text is valid UTF-8.
std::string printableJson(std::string_view json);

}  // namespace NV::tool
