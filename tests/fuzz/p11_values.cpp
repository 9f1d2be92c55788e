// The names of return values, mechanisms and attribute types, for any number. The input is a list
// of numbers of four bytes. The same value always has the same text.

#include <cctype>
#include <cstdlib>
#include <string_view>

#include "p11/p11text.h"
#include "target.h"

namespace NV::fuzz {

namespace {

bool isIdentifier(std::string_view text, std::string_view prefix)
{
    return text.starts_with(prefix) && text.size() > prefix.size() &&
           std::all_of(text.begin(), text.end(),
                       [](unsigned char c) { return c == '_' || std::isalnum(c) != 0; });
}

// "00000191(CKR_CRYPTOKI_ALREADY_INITIALIZED)"
void checkReturnValue(CK_RV value)
{
    const std::string text = returnValueText(value);
    HOLDS(value <= 0x200 || text == "UNKNOWN");
    if (text == "UNKNOWN")
        return;
    char number[16];
    std::snprintf(number, sizeof number, "%08x(", value);
    HOLDS(text.starts_with(number) && text.ends_with(")"));
    HOLDS(isIdentifier(std::string_view(text).substr(9, text.size() - 10), "CKR_"));
}

// One of the names contains a tab.
void checkMechanism(CK_MECHANISM_TYPE type)
{
    std::string text = mechanismText(type);
    HOLDS(text.ends_with("\t") == (type == CKM_KIP_DERIVE));
    if (text.ends_with("\t"))
        text.pop_back();
    HOLDS(text == "UNKNOWN" || isIdentifier(text, "CKM_"));
}

// "CKA_SUBJECT(257)"
void checkAttribute(CK_ATTRIBUTE_TYPE type)
{
    const std::string text = attributeText(type);
    if (text == "UNKNOWN")
        return;
    const std::string number = "(" + std::to_string(static_cast<int32_t>(type)) + ")";
    HOLDS(text.ends_with(number));
    HOLDS(isIdentifier(std::string_view(text).substr(0, text.size() - number.size()), "CKA_"));
}

}  // namespace

}  // namespace NV::fuzz

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace NV::fuzz;
    Input input(data, size);
    while (!input.atEnd()) {
        const uint32_t number = input.number();
        checkReturnValue(number);
        checkMechanism(number);
        checkAttribute(number);
        // The buffers contain no rest of the text of another value.
        const std::string before = NV::attributeText(number);
        NV::attributeText(number + 1);
        HOLDS(NV::attributeText(number) == before);
    }
    return 0;
}
