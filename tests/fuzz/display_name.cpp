// Names in the PIN dialog, for any text. The input is the width of the line and UTF-16 units. Compared with
// what a line of one name must be: no control or direction characters, single blanks, whole
// characters; and with the longest text that fits, tried one by one.

#include <algorithm>
#include <string>

#include "pindialog/pindialog_text.h"
#include "target.h"

namespace NV::fuzz {

namespace {

bool isHigh(wchar_t unit)
{
    return unit >= 0xD800 && unit <= 0xDBFF;
}

bool isLow(wchar_t unit)
{
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

bool hasOnlyPairs(const std::wstring& text)
{
    for (size_t i = 0; i < text.size(); ++i) {
        if (isLow(text[i]))
            return false;
        if (isHigh(text[i]) && (++i == text.size() || !isLow(text[i])))
            return false;
    }
    return true;
}

void checkName(const std::wstring& name, const std::wstring& shown)
{
    for (const wchar_t unit : shown) {
        HOLDS(unit >= 0x20 && !(unit >= 0x7F && unit <= 0xA0));
        HOLDS(unit != 0x2028 && unit != 0x2029 && unit != 0x200E && unit != 0x200F);
        HOLDS(!(unit >= 0x202A && unit <= 0x202E) && !(unit >= 0x2066 && unit <= 0x2069));
    }
    HOLDS(shown.find(L"  ") == std::wstring::npos);
    HOLDS(!shown.starts_with(L' ') && !shown.ends_with(L' '));
    HOLDS(hasOnlyPairs(shown));
    HOLDS(NV::displayName(shown) == shown);
    // Nothing is lost of a name in letters and digits.
    if (std::ranges::all_of(name, [](wchar_t unit) { return unit > 0x20 && unit < 0x7F; }))
        HOLDS(shown == name);
}

void checkCut(const std::wstring& text, size_t room)
{
    const auto fits = [room](const std::wstring& tried) { return tried.size() <= room; };
    const std::wstring cut = NV::cutInMiddle(text, fits);
    if (text.size() <= std::min(room, NV::longestMeasured)) {
        HOLDS(cut == text);
        return;
    }
    HOLDS(hasOnlyPairs(cut) && cut.size() <= std::max<size_t>({room, 1}));
    HOLDS(cut.size() <= NV::longestMeasured);
    // The beginning and the end of the text around one of the ellipses.
    bool found = false;
    for (size_t i = 0; i < cut.size() && !found; ++i)
        found = cut[i] == 0x2026 && text.starts_with(cut.substr(0, i)) &&
                text.ends_with(cut.substr(i + 1));
    HOLDS(found);
    // All of the room is used where each unit is a character.
    if (std::ranges::all_of(text, [](wchar_t unit) { return unit < 0x7F; }))
        HOLDS(cut.size() == std::min(std::max<size_t>(room, 1), NV::longestMeasured));
}

}  // namespace

}  // namespace NV::fuzz

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace NV::fuzz;
    Input input(data, size);
    const size_t room = input.number(2);
    std::wstring name;
    while (!input.atEnd())
        name += static_cast<wchar_t>(input.number(2));
    const std::wstring shown = NV::displayName(name);
    checkName(name, shown);
    checkCut(shown, room);
    return 0;
}
