// Text between Windows' UTF-16 and the tool's UTF-8, and statuses as people read them.

#pragma once

#include <windows.h>

#include <filesystem>
#include <string>
#include <string_view>

namespace NV::tool {

// What has no counterpart becomes U+FFFD.
std::string toUtf8(std::wstring_view text);
std::string toUtf8(const std::wstring& text);
std::string toUtf8(const std::filesystem::path& path);
std::wstring toUtf16(std::string_view text);
std::filesystem::path toPath(std::string_view utf8);

bool isAscii(std::string_view text);

// "NTE_INVALID_HANDLE (0x80090026)", or the number alone for one without a known name.
std::string statusText(SECURITY_STATUS status);

// The system's text for a Win32 error code, without a full stop or line feed at its end, and the
// number: "Access is denied (5)".
std::string errorText(DWORD error);

}  // namespace NV::tool
