// Shared by all fuzz targets: reads the input piece by piece, and checks conditions.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>

#include "base/encoding.h"

// libFuzzer calls it with one input after the other.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// Ends the run and prints the condition when it is false; libFuzzer then saves the input.
#define HOLDS(condition)                                                                           \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            std::fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition);    \
            std::abort();                                                                          \
        }                                                                                          \
    } while (false)

namespace NV::fuzz {

// Reads the input from its beginning. After its end it returns zeros and empty pieces. Pieces are
// copies of exactly their size, so that the address sanitizer detects every access beyond them.
class Input {
public:
    Input(const uint8_t* data, size_t size) : left_(data, size) {}

    bool atEnd() const { return left_.empty(); }

    uint8_t byte()
    {
        const uint8_t value = atEnd() ? uint8_t{0} : left_.front();
        left_ = left_.subspan(std::min<size_t>(1, left_.size()));
        return value;
    }

    // Little-endian.
    uint32_t number(int bytes = 4)
    {
        uint32_t value = 0;
        for (int i = 0; i < bytes; ++i)
            value |= uint32_t{byte()} << (8 * i);
        return value;
    }

    // The remaining bytes, at most `size`.
    Bytes bytes(size_t size)
    {
        const auto piece = left_.first(std::min(size, left_.size()));
        left_ = left_.subspan(piece.size());
        return {piece.begin(), piece.end()};
    }

    Bytes rest() { return bytes(left_.size()); }

    // The text up to a line feed, which it consumes as well, or to the end.
    std::string line()
    {
        std::string text;
        while (!atEnd()) {
            const char c = static_cast<char>(byte());
            if (c == '\n')
                break;
            text.push_back(c);
        }
        return text;
    }

    std::string restAsText()
    {
        const Bytes all = rest();
        return {all.begin(), all.end()};
    }

private:
    std::span<const uint8_t> left_;
};

// The little-endian number at an offset, by arithmetic.
inline uint32_t numberAt(std::span<const uint8_t> bytes, size_t offset)
{
    HOLDS(offset + 4 <= bytes.size());
    return uint32_t{bytes[offset]} | uint32_t{bytes[offset + 1]} << 8 |
           uint32_t{bytes[offset + 2]} << 16 | uint32_t{bytes[offset + 3]} << 24;
}

}  // namespace NV::fuzz
