// Paths, numbers, and the system's texts for errors.

#include "text.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

namespace NV::tool {

std::filesystem::path toPath(std::string_view utf8)
{
    return {fromUtf8(utf8)};
}

bool isAscii(std::string_view text)
{
    return std::ranges::all_of(text, [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

std::string joined(const std::vector<std::string>& texts)
{
    std::string all;
    for (const std::string& text : texts)
        all += (all.empty() ? "" : ", ") + text;
    return all;
}

std::string hexText(SECURITY_STATUS status)
{
    char number[16];
    std::snprintf(number, sizeof number, "0x%08x", static_cast<unsigned>(status));
    return number;
}

std::string errorText(DWORD error)
{
    wchar_t text[512];
    const DWORD length =
        FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, error,
                       0, text, static_cast<DWORD>(std::size(text)), nullptr);
    std::string result = toUtf8(std::wstring_view(text, length));
    result.erase(result.find_last_not_of(" .\r\n") + 1);
    const std::string number = "(" + std::to_string(error) + ")";
    return result.empty() ? "error " + number : result + " " + number;
}

}  // namespace NV::tool
