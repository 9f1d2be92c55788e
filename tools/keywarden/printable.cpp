// Walks through UTF-8 one character at a time.

#include "printable.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>

namespace NV::tool {

namespace {

struct Character {
    uint32_t code;
    size_t size;  // in bytes
    bool valid;
};

struct Range {
    uint32_t first;
    uint32_t last;
};

constexpr std::array unsafe = {
    Range{0x00, 0x1F},      // C0
    Range{0x7F, 0x9F},      // DEL, C1
    Range{0x061C, 0x061C},  // Arabic letter mark
    Range{0x200E, 0x200F},  // left-to-right mark, right-to-left mark
    Range{0x2028, 0x202E},  // separators, embeddings, overrides
    Range{0x2066, 0x2069},  // isolates
};

bool isUnsafe(uint32_t code)
{
    return std::ranges::any_of(
        unsafe, [code](const Range& range) { return range.first <= code && code <= range.last; });
}

// The number of bytes that a first byte announces; 0 for one that begins no character.
size_t announcedSize(unsigned char first)
{
    if (first < 0x80)
        return 1;
    if (first >= 0xC2 && first <= 0xDF)
        return 2;
    if ((first & 0xF0) == 0xE0)
        return 3;
    return first >= 0xF0 && first <= 0xF4 ? 4 : 0;
}

// The first character of a text that is not empty.
Character first(std::string_view text)
{
    constexpr std::array<uint32_t, 5> smallest = {0, 0, 0x80, 0x800, 0x10000};
    const auto byte = static_cast<unsigned char>(text[0]);
    const size_t size = announcedSize(byte);
    if (size == 0 || size > text.size())
        return {byte, 1, false};
    uint32_t code = size == 1 ? byte : byte & (0x7FU >> size);
    for (size_t i = 1; i < size; ++i) {
        const auto next = static_cast<unsigned char>(text[i]);
        if ((next & 0xC0) != 0x80)
            return {byte, 1, false};
        code = code << 6 | (next & 0x3FU);
    }
    const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
    if (code < smallest[size] || code > 0x10FFFF || surrogate)
        return {byte, 1, false};
    return {code, size, true};
}

// `digits` hexadecimal digits behind "\\" and the letter.
std::string escape(char letter, uint32_t code, int digits)
{
    char text[16];
    std::snprintf(text, sizeof text, "\\%c%0*X", letter, digits, static_cast<unsigned>(code));
    return text;
}

template <typename Escape>
std::string replaced(std::string_view text, const Escape& escapeOf)
{
    std::string result;
    while (!text.empty()) {
        const Character character = first(text);
        const std::string escaped = escapeOf(character);
        result += escaped.empty() ? std::string(text.substr(0, character.size)) : escaped;
        text.remove_prefix(character.size);
    }
    return result;
}

}  // namespace

std::string printable(std::string_view text)
{
    return replaced(text, [](const Character& character) {
        if (character.valid && !isUnsafe(character.code))
            return std::string();
        return character.code < 0x100 ? escape('x', character.code, 2)
                                      : escape('u', character.code, 4);
    });
}

std::string printableJson(std::string_view json)
{
    return replaced(json, [](const Character& character) {
        return character.code >= 0x20 && isUnsafe(character.code) ? escape('u', character.code, 4)
                                                                  : std::string();
    });
}

}  // namespace NV::tool
