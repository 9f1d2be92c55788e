// What the program prints: text for people, or one JSON document for scripts. All text is UTF-8.

#pragma once

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace NV::tool {

// Keys keep the order in which they are set.
using Json = nlohmann::ordered_json;

enum class Colour { none, green, red, yellow, dim, bold };

// Standard output and standard error of this process. With --json, text for people is dropped and
// the command prints one document; without it, the document is dropped. So a command may do both.
class Output {
public:
    // Colours only where standard output is a terminal and NO_COLOR is not set.
    Output();

    void setJson(bool json) { json_ = json; }
    bool json() const { return json_; }
    // Whether standard error is a terminal, so that a progress bar can be drawn on it.
    bool errorIsTerminal() const { return errorIsTerminal_; }

    // A line of text; the line feed is added.
    void line(std::string_view text = {});
    // Left-aligned columns two blanks apart, the heading first. Widths are counted in characters.
    void table(const std::vector<std::string>& heading,
               const std::vector<std::vector<std::string>>& rows);
    // The text in a colour, where colours are on.
    std::string coloured(Colour colour, std::string_view text) const;

    void document(const Json& document);

    // Standard error: a reason, and the next thing to do if that is known. With --json the two
    // become the document {"error": ..., "advice": ...} on standard output.
    void failure(std::string_view reason, std::string_view advice);

private:
    bool json_ = false;
    bool colours_ = false;
    bool errorIsTerminal_ = false;
};

}  // namespace NV::tool
