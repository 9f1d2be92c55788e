// Which known word a mistyped one probably stands for.

#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace NV::tool {

// The candidate that differs least from the word: by at most a third of its characters, inserted,
// missing, changed, or exchanged with their neighbour. Empty if there is none. Of several, the first.
std::string nearest(std::string_view word, const std::vector<std::string>& candidates);

}  // namespace NV::tool
