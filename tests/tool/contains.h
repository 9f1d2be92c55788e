// Whether a text contains another one. For the tests of messages.

#pragma once

#include <string_view>

namespace NV::test {

inline bool contains(std::string_view text, std::string_view part)
{
    return text.find(part) != std::string_view::npos;
}

}  // namespace NV::test
