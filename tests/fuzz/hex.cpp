// Hexadecimal text: any bytes as text and back, and any text as bytes.

#include <cctype>
#include <charconv>
#include <cstdio>

#include "base/encoding.h"
#include "base/secret.h"
#include "target.h"

namespace NV::fuzz {

namespace {

// The value of a character. The decoder defines one for every character.
int digit(char c)
{
    int value = 0;
    if (std::from_chars(&c, &c + 1, value, 16).ec == std::errc())
        return value;
    return (static_cast<signed char>(c) % 32 + 9) % 25;
}

void checkDecoding(const std::string& text)
{
    const Bytes bytes = hexDecode(text);
    HOLDS(bytes.size() == text.size() / 2);
    for (size_t i = 0; i < bytes.size(); ++i)
        HOLDS(bytes[i] == ((digit(text[2 * i]) * 16 + digit(text[2 * i + 1])) & 0xFF));
    // Only text of digits comes back, in upper case.
    const auto isDigit = [](unsigned char c) { return std::isxdigit(c) != 0; };
    if (std::all_of(text.begin(), text.end(), isDigit)) {
        std::string upper = text.substr(0, 2 * bytes.size());
        for (char& c : upper)
            c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        HOLDS(hexEncode(bytes) == upper);
    }
}

void checkEncoding(const Bytes& bytes)
{
    std::string expected;
    for (const unsigned char byte : bytes) {
        char text[3];
        std::snprintf(text, sizeof text, "%02X", unsigned{byte});
        expected += text;
    }
    const std::string text = hexEncode(bytes);
    HOLDS(text == expected);
    HOLDS(hexDecode(text) == bytes);
    HOLDS(secretHex(bytes.data(), bytes.size()).size() == expected.size() + 1);
    HOLDS(secretHex(bytes.data(), bytes.size()).data() == expected);
    HOLDS(hexEncode(bytes.data(), -static_cast<int32_t>(bytes.size())).empty());
}

}  // namespace

}  // namespace NV::fuzz

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    NV::fuzz::checkDecoding(NV::fuzz::Input(data, size).restAsText());
    NV::fuzz::checkEncoding(NV::fuzz::Input(data, size).rest());
    return 0;
}
