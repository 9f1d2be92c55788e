// Tags, lengths and contents.

#include "formats/der.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <string>

namespace NV::tool {

namespace {

namespace tag {
constexpr unsigned char integer = 0x02;
constexpr unsigned char octetString = 0x04;
constexpr unsigned char null = 0x05;
constexpr unsigned char objectIdentifier = 0x06;
constexpr unsigned char utcTime = 0x17;
constexpr unsigned char generalizedTime = 0x18;
constexpr unsigned char sequence = 0x30;
constexpr unsigned char set = 0x31;
constexpr unsigned char context = 0xA0;
}  // namespace tag

// Big-endian without leading zero bytes, except for 0 itself.
Bytes bytesOf(size_t number)
{
    Bytes bytes;
    do {
        bytes.insert(bytes.begin(), static_cast<unsigned char>(number & 0xFF));
        number >>= 8;
    } while (number != 0);
    return bytes;
}

Bytes concatenated(const std::vector<Bytes>& elements)
{
    Bytes all;
    for (const Bytes& element : elements)
        all.insert(all.end(), element.begin(), element.end());
    return all;
}

// A number of an object identifier: seven bits a byte, the top bit set in all but the last one.
void appendBase128(Bytes& content, uint32_t number)
{
    Bytes groups = {static_cast<unsigned char>(number & 0x7F)};
    while ((number >>= 7) != 0)
        groups.insert(groups.begin(), static_cast<unsigned char>(0x80 | (number & 0x7F)));
    content.insert(content.end(), groups.begin(), groups.end());
}

std::vector<uint32_t> numbersOf(std::string_view oid)
{
    std::vector<uint32_t> numbers;
    const char* at = oid.data();
    const char* end = at + oid.size();
    while (at < end) {
        uint32_t number = 0;
        at = std::from_chars(at, end, number).ptr + 1;
        numbers.push_back(number);
    }
    return numbers;
}

}  // namespace

Bytes derElement(unsigned char tag, const Bytes& content)
{
    Bytes element = {tag};
    Bytes length = bytesOf(content.size());
    if (content.size() >= 0x80)
        element.push_back(static_cast<unsigned char>(0x80 | length.size()));
    element.insert(element.end(), length.begin(), length.end());
    element.insert(element.end(), content.begin(), content.end());
    return element;
}

Bytes derSequence(const std::vector<Bytes>& elements)
{
    return derElement(tag::sequence, concatenated(elements));
}

Bytes derSet(std::vector<Bytes> elements)
{
    std::ranges::sort(elements);
    return derElement(tag::set, concatenated(elements));
}

Bytes derContext(unsigned number, const Bytes& content)
{
    return derElement(static_cast<unsigned char>(tag::context + number), content);
}

Bytes derOid(std::string_view oid)
{
    const std::vector<uint32_t> numbers = numbersOf(oid);
    Bytes content;
    appendBase128(content, 40 * numbers.at(0) + numbers.at(1));
    for (size_t i = 2; i < numbers.size(); ++i)
        appendBase128(content, numbers[i]);
    return derElement(tag::objectIdentifier, content);
}

Bytes derInteger(uint32_t number)
{
    return derInteger(bytesOf(number));
}

Bytes derInteger(const Bytes& number)
{
    const auto first = std::ranges::find_if(number, [](unsigned char byte) { return byte != 0; });
    Bytes content(first, number.end());
    if (content.empty() || (content.front() & 0x80) != 0)
        content.insert(content.begin(), 0);
    return derElement(tag::integer, content);
}

Bytes derOctets(const Bytes& content)
{
    return derElement(tag::octetString, content);
}

Bytes derNull()
{
    return derElement(tag::null, {});
}

Bytes derTime(const SYSTEMTIME& utc)
{
    char text[40];
    std::snprintf(text, sizeof text, "%04u%02u%02u%02u%02u%02uZ", utc.wYear, utc.wMonth, utc.wDay,
                  utc.wHour, utc.wMinute, utc.wSecond);
    const bool isShort = utc.wYear < 2050;
    const std::string time = isShort ? text + 2 : text;
    return derElement(isShort ? tag::utcTime : tag::generalizedTime, {time.begin(), time.end()});
}

}  // namespace NV::tool
