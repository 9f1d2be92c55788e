// Texts of the PIN dialog.

#include "pindialog/pindialog_text.h"

#include <algorithm>
#include <limits>
#include <span>

namespace NV {

namespace {

// UTF-16 units, ends included.
struct UnitRange {
    wchar_t first;
    wchar_t last;
};

// Control characters and what leaves room without showing anything.
constexpr UnitRange blanks[] = {
    {0x0000, 0x0020}, {0x007F, 0x00A0}, {0x115F, 0x1160}, {0x1680, 0x1680},
    {0x2000, 0x200A}, {0x2028, 0x2029}, {0x202F, 0x202F}, {0x205F, 0x205F},
    {0x2800, 0x2800}, {0x3000, 0x3000}, {0x3164, 0x3164}, {0xFFA0, 0xFFA0},
};

// What changes the direction of the writing, and what neither shows anything nor leaves room.
constexpr UnitRange dropped[] = {
    {0x00AD, 0x00AD}, {0x034F, 0x034F}, {0x061C, 0x061C}, {0x180E, 0x180E}, {0x200B, 0x200B},
    {0x200E, 0x200F}, {0x202A, 0x202E}, {0x2060, 0x206F}, {0xFEFF, 0xFEFF}, {0xFFF9, 0xFFFB},
};

// What belongs to the character before it: combining marks, joiners, variants.
constexpr UnitRange attached[] = {
    {0x0300, 0x036F}, {0x0591, 0x05C7}, {0x064B, 0x065F}, {0x1AB0, 0x1AFF}, {0x1DC0, 0x1DFF},
    {0x200C, 0x200D}, {0x20D0, 0x20FF}, {0x3099, 0x309A}, {0xFE00, 0xFE0F}, {0xFE20, 0xFE2F},
};

constexpr wchar_t joiner = 0x200D;
constexpr wchar_t replacement = 0xFFFD;
constexpr wchar_t ellipsis = 0x2026;

bool isIn(std::span<const UnitRange> ranges, wchar_t unit)
{
    return std::ranges::any_of(ranges, [unit](const UnitRange& range) {
        return unit >= range.first && unit <= range.last;
    });
}

bool isHighSurrogate(wchar_t unit)
{
    return unit >= 0xD800 && unit < 0xDC00;
}

bool isLowSurrogate(wchar_t unit)
{
    return unit >= 0xDC00 && unit < 0xE000;
}

// Whether the text can be cut before the position.
bool isCharacterBorder(std::wstring_view text, size_t position)
{
    if (position == 0 || position >= text.size())
        return true;
    const wchar_t before = text[position - 1];
    const wchar_t after = text[position];
    return !(isHighSurrogate(before) && isLowSurrogate(after)) && before != joiner &&
           !isIn(attached, after);
}

// At most `kept` units of the text around an ellipsis.
std::wstring withEllipsis(std::wstring_view text, size_t kept)
{
    size_t head = (kept + 1) / 2;
    size_t tail = text.size() - kept / 2;
    while (!isCharacterBorder(text, head))
        --head;
    while (!isCharacterBorder(text, tail))
        ++tail;
    std::wstring cut(text.substr(0, head));
    cut += ellipsis;
    cut += text.substr(tail);
    return cut;
}

std::wstring characters(uint32_t count)
{
    return std::to_wstring(count) + (count == 1 ? L" character" : L" characters");
}

std::wstring boundsText(const PINBounds& bounds)
{
    if (bounds.maximum == std::numeric_limits<uint32_t>::max())
        return L"at least " + characters(bounds.minimum);
    if (bounds.minimum == 0)
        return L"at most " + characters(bounds.maximum);
    if (bounds.minimum == bounds.maximum)
        return L"exactly " + characters(bounds.maximum);
    return std::to_wstring(bounds.minimum) + L" to " + characters(bounds.maximum);
}

std::wstring lengthMessage(const wchar_t* fault, const PINBounds& bounds, bool wide)
{
    std::wstring message = fault;
    message += L" A PIN of this token has " + boundsText(bounds) + L".";
    if (wide)
        message += L" Accented letters and characters of other scripts count as two to four.";
    return message;
}

}  // namespace

std::wstring displayName(std::wstring_view name)
{
    std::wstring shown;
    bool gap = false;
    for (size_t i = 0; i < name.size(); ++i) {
        const wchar_t unit = name[i];
        if (isIn(dropped, unit))
            continue;
        if (isIn(blanks, unit)) {
            gap = true;
            continue;
        }
        if (gap && !shown.empty())
            shown += L' ';
        gap = false;
        if (isHighSurrogate(unit) && i + 1 < name.size() && isLowSurrogate(name[i + 1])) {
            shown += unit;
            shown += name[++i];
        } else {
            shown += isHighSurrogate(unit) || isLowSurrogate(unit) ? replacement : unit;
        }
    }
    return shown;
}

std::wstring cutInMiddle(std::wstring_view text,
                         const std::function<bool(const std::wstring&)>& fits)
{
    if (text.size() <= longestMeasured && fits(std::wstring(text)))
        return std::wstring(text);
    size_t fitting = 0;
    size_t tooMany = std::min(text.size(), longestMeasured);
    while (fitting + 1 < tooMany) {
        const size_t middle = fitting + (tooMany - fitting) / 2;
        (fits(withEllipsis(text, middle)) ? fitting : tooMany) = middle;
    }
    return withEllipsis(text, fitting);
}

std::wstring tooShortMessage(const PINBounds& bounds, bool wide)
{
    return lengthMessage(L"The PIN is too short.", bounds, wide);
}

std::wstring tooLongMessage(const PINBounds& bounds, bool wide)
{
    return lengthMessage(L"The PIN is too long.", bounds, wide);
}

}  // namespace NV
