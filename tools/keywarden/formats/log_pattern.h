// The form of a message of the log, and what a message has in the places of its values. Portable.

#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace NV::tool {

// A form is the text of the message with these in the places of values:
//
//   %d  a decimal number, with or without "-"
//   %x  1 to 16 hexadecimal digits, for numbers and pointers
//   %f  a decimal fraction: "0.012"
//   %w  a name: letters, digits and "_", at most 64
//   %r  a PKCS#11 result: "000000a0(CKR_PIN_INCORRECT)", or "UNKNOWN"
//   %s  a text, such as a path or the label of a token, also an empty one
//   %!  what nobody else may see, of any kind
//
// A percent sign stands for nothing else.
struct LogValue {
    char kind = 0;  // 'd', 'x', 'f', 'w', 'r', 's' or '!'
    std::string_view text;
};

// Whether the whole message has that form. `values` gets the parts in the places of values, in their
// order; they are parts of the message.
bool hasForm(std::string_view form, std::string_view message, std::vector<LogValue>& values);

// The form up to its first value.
std::string_view beginningOf(std::string_view form);

}  // namespace NV::tool
