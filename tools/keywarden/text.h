// Paths as UTF-8, and texts for numbers and errors. system/explanation.h has those of statuses, and
// base/text.h converts all other texts.

#pragma once

#include <windows.h>

#include <concepts>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "base/text.h"

namespace NV::tool {

using NV::toUtf8;

// Only a path itself matches, so that other texts are not ambiguous.
std::string toUtf8(const std::same_as<std::filesystem::path> auto& path)
{
    return toUtf8(std::wstring_view(path.native()));
}
std::filesystem::path toPath(std::string_view utf8);

bool isAscii(std::string_view text);

// The texts with ", " between them.
std::string joined(const std::vector<std::string>& texts);

// "0x8009002d".
std::string hexText(SECURITY_STATUS status);

// The system's text for a Win32 error code, without a trailing period or line feed, and the number:
// "Access is denied (5)".
std::string errorText(DWORD error);

}  // namespace NV::tool
