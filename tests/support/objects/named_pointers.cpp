// Puts names in the place of addresses.

#include "named_pointers.h"

#include <charconv>
#include <regex>

namespace NV::test {

std::string withPointerNames(const std::string& text, const PointerNames& names)
{
    static const std::regex pointer(R"(\b[0-9A-Fa-f]{16}\b)");
    std::string result;
    auto rest = text.cbegin();
    for (std::sregex_iterator match(text.begin(), text.end(), pointer), end; match != end;
         ++match) {
        const std::string digits = match->str();
        uintptr_t value = 0;
        std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
        const auto name = names.find(value);
        result.append(rest, (*match)[0].first);
        result += name != names.end() ? name->second : digits;
        rest = (*match)[0].second;
    }
    return result.append(rest, text.cend());
}

std::string replaced(std::string text, const std::string& what, const std::string& by)
{
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + by.size()))
        text.replace(at, what.size(), by);
    return text;
}

}  // namespace NV::test
