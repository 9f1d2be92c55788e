// Conversion between text encodings.

#include "base/text.h"

#include <cstdint>

#if __has_include(<windows.h>)
#include <windows.h>
#endif

namespace NV {

namespace {

constexpr bool isHighSurrogate(uint32_t unit)
{
    return unit >= 0xD800 && unit < 0xDC00;
}

constexpr bool isLowSurrogate(uint32_t unit)
{
    return unit >= 0xDC00 && unit < 0xE000;
}

void appendUtf8(std::string& text, uint32_t point)
{
    const auto byte = [&text](uint32_t value) { text.push_back(static_cast<char>(value)); };
    if (point < 0x80) {
        byte(point);
    } else if (point < 0x800) {
        byte(0xC0 | point >> 6);
        byte(0x80 | (point & 0x3F));
    } else if (point < 0x10000) {
        byte(0xE0 | point >> 12);
        byte(0x80 | (point >> 6 & 0x3F));
        byte(0x80 | (point & 0x3F));
    } else {
        byte(0xF0 | point >> 18);
        byte(0x80 | (point >> 12 & 0x3F));
        byte(0x80 | (point >> 6 & 0x3F));
        byte(0x80 | (point & 0x3F));
    }
}

#if __has_include(<windows.h>)

std::wstring fromCodePage(UINT codePage, std::string_view text)
{
    const int size = static_cast<int>(text.size());
    const int length = MultiByteToWideChar(codePage, 0, text.data(), size, nullptr, 0);
    std::wstring wide(static_cast<size_t>(length), L'\0');
    MultiByteToWideChar(codePage, 0, text.data(), size, wide.data(), length);
    return wide;
}

#endif

}  // namespace

std::string toUtf8(std::wstring_view text)
{
    std::string utf8;
    utf8.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        uint32_t point = static_cast<uint32_t>(text[i]);
        const uint32_t next = i + 1 < text.size() ? static_cast<uint32_t>(text[i + 1]) : 0;
        if (isHighSurrogate(point) && isLowSurrogate(next)) {
            point = 0x10000 + ((point - 0xD800) << 10) + (next - 0xDC00);
            ++i;
        } else if (isHighSurrogate(point) || isLowSurrogate(point)) {
            point = 0xFFFD;
        }
        appendUtf8(utf8, point);
    }
    return utf8;
}

std::string printable(const wchar_t* text)
{
    return text != nullptr ? toUtf8(text) : "(null)";
}

std::wstring widenBytes(std::string_view text)
{
    std::wstring wide;
    wide.reserve(text.size());
    for (const char c : text)
        wide.push_back(static_cast<unsigned char>(c));
    return wide;
}

#if __has_include(<windows.h>)

std::wstring fromUtf8(std::string_view text)
{
    return fromCodePage(CP_UTF8, text);
}

std::wstring fromAnsi(std::string_view text)
{
    return fromCodePage(CP_ACP, text);
}

#endif

}  // namespace NV
