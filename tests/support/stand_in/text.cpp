// Text conversion. Both code pages are UTF-8, and a wchar_t contains a whole character.

#include <windows.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "last_error.h"
#include "paths.h"

namespace {

constexpr uint32_t replacementCharacter = 0xFFFD;

bool isContinuation(unsigned char byte)
{
    return (byte & 0xC0) == 0x80;
}

bool isCharacter(uint32_t point)
{
    return point <= 0x10FFFF && (point < 0xD800 || point > 0xDFFF);
}

// The character that begins at text[at], and `at` behind it. Moves by one byte behind an invalid one.
uint32_t nextCharacter(std::string_view text, size_t& at)
{
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(at++);
    if (first < 0x80)
        return first;
    const size_t more = first >= 0xF0 ? 3 : first >= 0xE0 ? 2 : 1;
    if (first < 0xC2 || first > 0xF4 || text.size() - at < more)
        return replacementCharacter;
    uint32_t point = first & (0x3FU >> more);
    for (size_t i = 0; i < more; ++i) {
        if (!isContinuation(byte(at + i)))
            return replacementCharacter;
        point = point << 6 | (byte(at + i) & 0x3FU);
    }
    constexpr uint32_t smallest[] = {0x80, 0x800, 0x10000};
    if (point < smallest[more - 1] || !isCharacter(point))
        return replacementCharacter;
    at += more;
    return point;
}

std::wstring widened(std::string_view text)
{
    std::wstring wide;
    for (size_t at = 0; at < text.size();)
        wide.push_back(static_cast<wchar_t>(nextCharacter(text, at)));
    return wide;
}

std::string narrowed(std::wstring_view wide)
{
    std::string text;
    const auto put = [&text](uint32_t byte) { text.push_back(static_cast<char>(byte)); };
    for (const wchar_t character : wide) {
        auto point = static_cast<char32_t>(character);
        if (!isCharacter(point))
            point = replacementCharacter;
        if (point < 0x80) {
            put(point);
            continue;
        }
        const int more = point < 0x800 ? 1 : point < 0x10000 ? 2 : 3;
        constexpr uint32_t heads[] = {0xC0, 0xE0, 0xF0};
        put(heads[more - 1] | point >> (6 * more));
        for (int shift = 6 * (more - 1); shift >= 0; shift -= 6)
            put(0x80 | (point >> shift & 0x3F));
    }
    return text;
}

template <typename Text>
int give(const Text& result, typename Text::value_type* buffer, int capacity)
{
    const int length = static_cast<int>(result.size());
    if (buffer == nullptr || capacity == 0)
        return length;
    if (capacity < length)
        return NV::stand_in::failed(ERROR_INSUFFICIENT_BUFFER);
    std::copy(result.begin(), result.end(), buffer);
    return length;
}

}  // namespace

int MultiByteToWideChar(UINT, DWORD, LPCSTR text, int size, LPWSTR wide, int capacity)
{
    return give(widened({text, static_cast<size_t>(size)}), wide, capacity);
}

int WideCharToMultiByte(UINT, DWORD, LPCWSTR wide, int length, LPSTR text, int capacity, LPCSTR,
                        BOOL* replaced)
{
    if (replaced != nullptr)
        *replaced = FALSE;
    return give(narrowed({wide, static_cast<size_t>(length)}), text, capacity);
}

namespace NV::stand_in {

std::string nativePath(std::wstring_view path)
{
    if (path.starts_with(LR"(\\?\)"))
        path.remove_prefix(4);
    if (path.starts_with(L"Z:"))
        path.remove_prefix(2);
    std::string native = narrowed(path);
    std::ranges::replace(native, '\\', '/');
    return native;
}

}  // namespace NV::stand_in
