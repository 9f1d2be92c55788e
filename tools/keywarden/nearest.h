// Which known word a mistyped one probably stands for.

#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace NV::tool {

// How many characters must be inserted, left out, changed, or exchanged with their neighbour to make one text
// the other (optimal string alignment).
size_t editDistance(std::string_view a, std::string_view b);

// The candidate that differs least from the word: by at most a third of its characters. Empty if there
// is none. Of several, the first.
std::string nearest(std::string_view word, const std::vector<std::string>& candidates);

}  // namespace NV::tool
