// Codecs between bytes and text: upper-case hexadecimal, and base64 (RFC 4648, standard alphabet,
// padded, no line breaks). Used for log lines, key names, DigestInfo headers and certificates.
//
// None of them fails. The base64 decoder stops at the first invalid character. The hexadecimal
// decoder returns a defined byte for every pair of characters.

#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace NV {

using Bytes = std::vector<unsigned char>;

namespace detail {

inline constexpr std::string_view base64Alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The three bytes of a group. The fourth byte has one bit for each place, from the lowest, which is
// set when the character at that place is not in the alphabet.
using Base64Group = std::array<unsigned char, 4>;

// The bits that each character adds to its group at each of the four places.
consteval std::array<std::array<uint32_t, 256>, 4> makeBase64Shares()
{
    const auto byte = [](size_t bits) { return static_cast<unsigned char>(bits); };
    std::array<std::array<uint32_t, 256>, 4> shares{};
    for (size_t place = 0; place < 4; ++place) {
        shares[place].fill(std::bit_cast<uint32_t>(Base64Group{0, 0, 0, byte(1U << place)}));
        for (size_t i = 0; i < base64Alphabet.size(); ++i) {
            const size_t bits = i << (18 - 6 * place);
            const Base64Group group{byte(bits >> 16), byte(bits >> 8), byte(bits), 0};
            shares[place][byte(static_cast<size_t>(base64Alphabet[i]))] =
                std::bit_cast<uint32_t>(group);
        }
    }
    return shares;
}

// ((c mod 32) + 9) mod 25 over the signed character: the value of a hexadecimal digit of either
// case, and a fixed number for any other character.
consteval std::array<unsigned char, 256> makeHexValues()
{
    std::array<unsigned char, 256> values{};
    for (int i = 0; i < 256; ++i) {
        const int c = i < 128 ? i : i - 256;
        values[static_cast<size_t>(i)] = static_cast<unsigned char>((c % 32 + 9) % 25);
    }
    return values;
}

// All pairs of characters of an alphabet in order, so that one look-up writes two characters.
template <size_t Size>
consteval std::array<std::array<char, 2>, Size * Size> makePairs(std::string_view alphabet)
{
    std::array<std::array<char, 2>, Size * Size> pairs{};
    for (size_t i = 0; i < pairs.size(); ++i)
        pairs[i] = {alphabet[i / Size], alphabet[i % Size]};
    return pairs;
}

inline constexpr auto base64Pairs = makePairs<64>(base64Alphabet);
inline constexpr auto base64Shares = makeBase64Shares();
inline constexpr auto hexPairs = makePairs<16>("0123456789ABCDEF");
inline constexpr auto hexValues = makeHexValues();

}  // namespace detail

// Two characters for each byte, without separators. A length below 1 gives an empty text.
inline std::string hexEncode(const unsigned char* data, int32_t length)
{
    if (length < 1)
        return {};
    std::string text(static_cast<size_t>(length) * 2, '\0');
    char* out = text.data();
    for (int32_t i = 0; i < length; ++i, out += 2)
        std::memcpy(out, &detail::hexPairs[data[i]], 2);
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
    std::string text((static_cast<size_t>(length) + 2) / 3 * 4, '\0');
    char* out = text.data();
    const auto writePair = [](char* to, uint64_t index) {
        std::memcpy(to, &detail::base64Pairs[index & 0xFFF], 2);
    };
    // Reads eight bytes at once and uses six; then reads four and uses three.
    for (; length >= 8; length -= 6, data += 6, out += 8) {
        uint64_t bits = 0;
        std::memcpy(&bits, data, 8);
        bits = __builtin_bswap64(bits);
        writePair(out, bits >> 52);
        writePair(out + 2, bits >> 40);
        writePair(out + 4, bits >> 28);
        writePair(out + 6, bits >> 16);
    }
    for (; length >= 4; length -= 3, data += 3, out += 4) {
        uint32_t bits = 0;
        std::memcpy(&bits, data, 4);
        bits = __builtin_bswap32(bits);
        writePair(out, bits >> 20);
        writePair(out + 2, bits >> 8);
    }
    if (length > 0) {
        const unsigned second = length > 1 ? data[1] : 0;
        const unsigned third = length > 2 ? data[2] : 0;
        const unsigned bits = unsigned{data[0]} << 16 | second << 8 | third;
        writePair(out, bits >> 12);
        writePair(out + 2, bits);
        if (length < 2)
            out[2] = '=';
        if (length < 3)
            out[3] = '=';
    }
    return text;
}

inline std::string base64Encode(const Bytes& data)
{
    return base64Encode(data.data(), static_cast<uint32_t>(data.size()));
}

// Stops at the first character outside the alphabet; padding is outside it. A last group of k
// characters gives k - 1 bytes.
inline Bytes base64Decode(std::string_view text)
{
    // Writes four bytes, of which three are data. Returns the places that end the decoding, as
    // bits.
    const auto decodeGroup = [](const char* from, unsigned char* to) {
        const auto share = [from](size_t place) {
            return detail::base64Shares[place][static_cast<unsigned char>(from[place])];
        };
        const uint32_t group = share(0) | share(1) | share(2) | share(3);
        std::memcpy(to, &group, 4);
        return unsigned{std::bit_cast<detail::Base64Group>(group)[3]};
    };
    const size_t groups = text.size() / 4;
    Bytes data(groups * 3 + 4);
    unsigned char* out = data.data();
    unsigned end = 0;
    size_t i = 0;
    for (; i < groups * 4; i += 4, out += 3) {
        end = decodeGroup(text.data() + i, out);
        if (end != 0)
            break;
    }
    if (end == 0) {
        char last[] = {'=', '=', '=', '='};
        text.copy(last, 3, i);
        end = decodeGroup(last, out);
    }
    // The bytes before the end do not depend on the characters after it.
    out += std::max(std::countr_zero(end), 1) - 1;
    data.resize(static_cast<size_t>(out - data.data()));
    return data;
}

}  // namespace NV
