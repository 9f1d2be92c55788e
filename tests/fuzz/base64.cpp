// Compares the base64 encoder and decoder with simple ones that work bit by bit.

#include <string_view>

#include "base/encoding.h"
#include "target.h"

namespace NV::fuzz {

namespace {

// The 6-bit value of a character; -1 for one outside the alphabet.
int valueOf(char c)
{
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    if (c == '+')
        return 62;
    return c == '/' ? 63 : -1;
}

// The whole bytes in the bits of all characters before the first one outside the alphabet.
Bytes expectedBytes(std::string_view text)
{
    Bytes bytes;
    unsigned bits = 0;
    int count = 0;
    for (const char c : text) {
        const int value = valueOf(c);
        if (value < 0)
            break;
        for (int i = 5; i >= 0; --i) {
            bits = (bits << 1 | (static_cast<unsigned>(value) >> i & 1)) & 0xFF;
            if (++count % 8 == 0)
                bytes.push_back(static_cast<unsigned char>(bits));
        }
    }
    return bytes;
}

void checkEncoding(const Bytes& bytes)
{
    const std::string text = base64Encode(bytes);
    HOLDS(text.size() == (bytes.size() + 2) / 3 * 4);
    const size_t letters = (bytes.size() * 8 + 5) / 6;
    for (size_t i = 0; i < text.size(); ++i) {
        if (i >= letters) {
            HOLDS(text[i] == '=');
            continue;
        }
        unsigned value = 0;
        for (size_t bit = 6 * i; bit < 6 * i + 6; ++bit) {
            const unsigned byte = bit / 8 < bytes.size() ? bytes[bit / 8] : 0U;
            value = value << 1 | (byte >> (7 - bit % 8) & 1);
        }
        HOLDS(valueOf(text[i]) == static_cast<int>(value));
    }
    HOLDS(base64Decode(text) == bytes);
}

}  // namespace

}  // namespace NV::fuzz

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace NV::fuzz;
    checkEncoding(Input(data, size).rest());

    const std::string text = Input(data, size).restAsText();
    const NV::Bytes bytes = NV::base64Decode(text);
    HOLDS(bytes == expectedBytes(text));
    checkEncoding(bytes);
    return 0;
}
