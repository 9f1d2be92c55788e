// The part of DER that two integers need: lengths below 256, always in the shortest form.

#include "formats/ecdsa_signature.h"

#include <algorithm>
#include <span>

#include "failure.h"

namespace NV::tool {

namespace {

constexpr unsigned char sequenceTag = 0x30;
constexpr unsigned char integerTag = 0x02;
constexpr unsigned char oneLengthByte = 0x81;

using ByteSpan = std::span<const unsigned char>;

void appendElement(Bytes& der, unsigned char tag, const Bytes& content)
{
    der.push_back(tag);
    if (content.size() >= 0x80)
        der.push_back(oneLengthByte);
    der.push_back(static_cast<unsigned char>(content.size()));
    der.insert(der.end(), content.begin(), content.end());
}

// Without leading zeros, except for the one that keeps a number with its top bit set positive.
Bytes integerContent(ByteSpan number)
{
    auto first = std::ranges::find_if(number, [](unsigned char byte) { return byte != 0; });
    Bytes content(first, number.end());
    if (content.empty() || (content.front() & 0x80) != 0)
        content.insert(content.begin(), 0);
    return content;
}

[[noreturn]] void refuse()
{
    throw Failure("the signature is not a DER-encoded ECDSA signature",
                  "If the file contains r followed by s, use --ec-format raw.");
}

// Removes an element with that tag from the front and returns its content.
ByteSpan takeElement(ByteSpan& der, unsigned char tag)
{
    if (der.size() < 2 || der[0] != tag)
        refuse();
    size_t header = 2;
    size_t length = der[1];
    if (length == oneLengthByte && der.size() > 2 && der[2] >= 0x80) {
        header = 3;
        length = der[2];
    } else if (length >= 0x80) {
        refuse();
    }
    if (der.size() - header < length)
        refuse();
    const ByteSpan content = der.subspan(header, length);
    der = der.subspan(header + length);
    return content;
}

// Whether the number is not negative and in the shortest form, without a needless leading zero byte.
bool isUnsignedInteger(ByteSpan content)
{
    if (content.empty() || (content[0] & 0x80) != 0)
        return false;
    return content.size() == 1 || content[0] != 0 || (content[1] & 0x80) != 0;
}

void appendNumber(Bytes& raw, ByteSpan content, size_t coordinateSize)
{
    if (!isUnsignedInteger(content))
        refuse();
    if (content.front() == 0)
        content = content.subspan(1);
    if (content.size() > coordinateSize)
        refuse();
    raw.insert(raw.end(), coordinateSize - content.size(), 0);
    raw.insert(raw.end(), content.begin(), content.end());
}

}  // namespace

Bytes ecdsaToDer(const Bytes& raw)
{
    const ByteSpan both(raw);
    Bytes numbers;
    appendElement(numbers, integerTag, integerContent(both.first(raw.size() / 2)));
    appendElement(numbers, integerTag, integerContent(both.subspan(raw.size() / 2)));
    Bytes der;
    appendElement(der, sequenceTag, numbers);
    return der;
}

Bytes ecdsaFromDer(const Bytes& der, size_t coordinateSize)
{
    ByteSpan rest(der);
    ByteSpan numbers = takeElement(rest, sequenceTag);
    if (!rest.empty())
        refuse();
    Bytes raw;
    appendNumber(raw, takeElement(numbers, integerTag), coordinateSize);
    appendNumber(raw, takeElement(numbers, integerTag), coordinateSize);
    if (!numbers.empty())
        refuse();
    return raw;
}

}  // namespace NV::tool
