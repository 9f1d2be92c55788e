// Conversion between the encodings of the module's texts: UTF-16 in Windows and CNG, UTF-8 in the log
// and in PKCS#11, and the ANSI code page in the log's settings.

#pragma once

#include <string>
#include <string_view>

namespace NV {

// A surrogate without its partner becomes U+FFFD.
std::string toUtf8(std::wstring_view text);

// Converts a zero-terminated text for the log. Returns "(null)" for a null pointer.
std::string printable(const wchar_t* text);

// Makes each byte a character of its own. For texts that are known to be ASCII.
std::wstring widenBytes(std::string_view text);

#if __has_include(<windows.h>)

// Invalid UTF-8 becomes U+FFFD.
std::wstring fromUtf8(std::string_view text);

// From the ANSI code page of the process.
std::wstring fromAnsi(std::string_view text);

#endif

}  // namespace NV
