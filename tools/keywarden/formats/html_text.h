// Text in an HTML page.

#pragma once

#include <string>
#include <string_view>

namespace NV::tool {

// The text with the characters escaped that could begin or end a tag, an entity or an attribute's value
// in double quotes.
std::string htmlText(std::string_view text);

}  // namespace NV::tool
