// Codecs between bytes and text: upper-case hexadecimal, and base64 (RFC 4648, standard alphabet,
// padded, no line breaks). Used for log lines, key names, DigestInfo headers and certificates.
//
// None of them fails. A decoder gives what the well-formed beginning of its input holds (base64)
// or a defined byte for every pair of characters (hexadecimal).

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace NV {

using Bytes = std::vector<unsigned char>;

namespace detail {

inline constexpr std::string_view base64Alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

inline constexpr unsigned char notBase64 = 0xFF;

// The 6-bit value of each character; notBase64 ends the decoding.
consteval std::array<unsigned char, 256> makeBase64Values()
{
    std::array<unsigned char, 256> values{};
    values.fill(notBase64);
    for (size_t i = 0; i < base64Alphabet.size(); ++i)
        values[static_cast<unsigned char>(base64Alphabet[i])] = static_cast<unsigned char>(i);
    return values;
}

// ((c mod 32) + 9) mod 25 over the signed character: exact for the hexadecimal digits of both
// cases, and a fixed number, not an error, for everything else.
consteval std::array<unsigned char, 256> makeHexValues()
{
    std::array<unsigned char, 256> values{};
    for (int i = 0; i < 256; ++i) {
        const int c = i < 128 ? i : i - 256;
        values[static_cast<size_t>(i)] = static_cast<unsigned char>((c % 32 + 9) % 25);
    }
    return values;
}

// Both digits of each byte, so that one look-up writes two characters.
consteval std::array<std::array<char, 2>, 256> makeHexPairs()
{
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::array<std::array<char, 2>, 256> pairs{};
    for (size_t i = 0; i < 256; ++i)
        pairs[i] = {digits[i >> 4], digits[i & 15]};
    return pairs;
}

inline constexpr auto base64Values = makeBase64Values();
inline constexpr auto hexValues = makeHexValues();
inline constexpr auto hexPairs = makeHexPairs();

}  // namespace detail

// Two characters a byte, no separators. A length below 1 gives the empty text.
inline std::string hexEncode(const unsigned char* data, int32_t length)
{
    if (length < 1)
        return {};
    std::string text(static_cast<size_t>(length) * 2, '\0');
    char* out = text.data();
    for (int32_t i = 0; i < length; ++i) {
        const auto& pair = detail::hexPairs[data[i]];
        *out++ = pair[0];
        *out++ = pair[1];
    }
    return text;
}

inline std::string hexEncode(const Bytes& data)
{
    return hexEncode(data.data(), static_cast<int32_t>(data.size()));
}

// One byte for every two characters of either case; an odd last character is ignored.
inline Bytes hexDecode(std::string_view text)
{
    Bytes data(text.size() / 2);
    for (size_t i = 0; i < data.size(); ++i) {
        const unsigned high = detail::hexValues[static_cast<unsigned char>(text[2 * i])];
        const unsigned low = detail::hexValues[static_cast<unsigned char>(text[2 * i + 1])];
        data[i] = static_cast<unsigned char>(high * 16 + low);
    }
    return data;
}

inline std::string base64Encode(const unsigned char* data, uint32_t length)
{
    std::string text((static_cast<size_t>(length) + 2) / 3 * 4, '=');
    const auto letter = [](unsigned index) { return detail::base64Alphabet[index & 63]; };
    char* out = text.data();
    uint32_t i = 0;
    for (; length - i >= 3; i += 3, out += 4) {
        const unsigned group = unsigned{data[i]} << 16 | unsigned{data[i + 1]} << 8 | data[i + 2];
        out[0] = letter(group >> 18);
        out[1] = letter(group >> 12);
        out[2] = letter(group >> 6);
        out[3] = letter(group);
    }
    const uint32_t rest = length - i;
    if (rest > 0) {
        // cppcheck-suppress nullPointer ; a null pointer comes with length 0, which has no rest
        const unsigned first = data[i];
        const unsigned group = first << 16 | (rest > 1 ? unsigned{data[i + 1]} << 8 : 0);
        out[0] = letter(group >> 18);
        out[1] = letter(group >> 12);
        if (rest > 1)
            out[2] = letter(group >> 6);
    }
    return text;
}

inline std::string base64Encode(const Bytes& data)
{
    return base64Encode(data.data(), static_cast<uint32_t>(data.size()));
}

// Reads up to the first character outside the alphabet, padding included. A last group of k
// characters gives k - 1 bytes.
inline Bytes base64Decode(std::string_view text)
{
    Bytes data;
    data.reserve(text.size() / 4 * 3 + 3);
    unsigned group = 0;
    unsigned count = 0;
    for (const char c : text) {
        const unsigned char value = detail::base64Values[static_cast<unsigned char>(c)];
        if (value == detail::notBase64)
            break;
        group = group << 6 | value;
        if (++count == 4) {
            data.push_back(static_cast<unsigned char>(group >> 16));
            data.push_back(static_cast<unsigned char>(group >> 8));
            data.push_back(static_cast<unsigned char>(group));
            group = 0;
            count = 0;
        }
    }
    group <<= 6 * (4 - count);
    if (count >= 2)
        data.push_back(static_cast<unsigned char>(group >> 16));
    if (count == 3)
        data.push_back(static_cast<unsigned char>(group >> 8));
    return data;
}

}  // namespace NV
