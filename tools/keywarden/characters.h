// Kinds of ASCII characters, whatever the locale is.

#pragma once

namespace NV::tool {

constexpr bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

constexpr bool isHexDigit(char c)
{
    return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

constexpr bool isLetter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

}  // namespace NV::tool
