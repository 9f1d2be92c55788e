// Numbers that a text consists of.

#pragma once

#include <charconv>
#include <optional>
#include <string_view>

namespace NV::tool {

// Nothing if the text is empty, has anything besides the number, or if the number does not fit.
template <typename Number>
std::optional<Number> wholeNumber(std::string_view text, int base = 10)
{
    Number number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    const bool whole = error == std::errc() && end == text.data() + text.size();
    return whole ? std::optional(number) : std::nullopt;
}

}  // namespace NV::tool
