// Conversion between the encodings of the module's texts: UTF-16 as Windows and CNG have it, UTF-8 as
// the log and PKCS#11 have it.

#pragma once

#include <string>
#include <string_view>

namespace NV {

// A surrogate without its partner becomes U+FFFD.
std::string toUtf8(std::wstring_view text);

// The same of a zero-terminated text, for the log: "(null)" for a null pointer.
std::string printable(const wchar_t* text);

}  // namespace NV
