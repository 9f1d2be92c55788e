// Lines of the module's log without what nobody else may see. Portable.

#pragma once

#include <string>
#include <string_view>

namespace NV::tool {

// What stands in the place of what was taken out.
inline constexpr std::string_view takenOut = "(taken out)";

struct RedactedLine {
    enum class Change {
        none,
        values,   // what the table of secret_lines.h says, or a long run of digits in a text
        message,  // all but time, process, function and place: the message is not known
        line,     // all of it: it is no record of the module
    };
    Change change = Change::none;
    std::string text;
};

// A line without its line feed. What is not known to be harmless is taken out, so that a line of another
// version of the module shows nothing either.
RedactedLine redacted(std::string_view line);

// A text from outside without long runs of hexadecimal digits or of the characters of base64: what is
// expected in it, such as a path, has none. Keys' names, which are hexadecimal, are shorter.
std::string withoutLongRuns(std::string_view text);

}  // namespace NV::tool
