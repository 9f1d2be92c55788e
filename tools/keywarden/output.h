// The program's output: text for people, or one JSON document for scripts. All text is UTF-8.

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

// Standard output and standard error of this process. A command produces both text and a document:
// with --json the text is dropped, without it the document.
//
// Texts may come from a token or a log: all that is printed is `printable` first. A line feed in a text
// is escaped, too.
class Output {
public:
    // Uses colours only if standard output is a terminal and NO_COLOR is not set.
    Output();

    void setJson(bool json) { json_ = json; }
    bool json() const { return json_; }
    // Text and documents go to standard error from now on, because the result goes to standard output.
    void keepStandardOutputFree();
    bool keepsStandardOutputFree() const { return toError_; }
    // Whether standard error is a terminal, so that a progress bar can be drawn on it.
    bool errorIsTerminal() const { return errorIsTerminal_; }

    // Prints a line of text; adds the line feed.
    void line(std::string_view text = {}) const;
    // Prints left-aligned columns two spaces apart, the heading first. Widths are in columns of
    // a terminal.
    void table(const std::vector<std::string>& heading,
               const std::vector<std::vector<std::string>>& texts) const;
    // The text in a colour if colours are on. The result is for `line` alone.
    std::string coloured(Colour colour, std::string_view text) const;

    // Shows the text in place of the previous one, on a line of its own on standard error, if that
    // is a terminal. An empty text removes it, which must be done before other output.
    void progress(std::string_view text);

    void document(const Json& document) const;

    // Prints a reason and, if it is not empty, an advice to standard error. With --json it prints
    // the document {"error": ..., "advice": ...} to standard output instead.
    void failure(std::string_view reason, std::string_view advice) const;

    // Prints a line to standard error, also with --json: something to know that is not the result.
    void warning(std::string_view text) const;

private:
    // The text as it is printed, with the sequences of its colours.
    std::string rendered(std::string_view text) const;
    void print(std::string_view text) const;

    bool json_ = false;
    bool toError_ = false;
    bool colours_ = false;
    bool errorIsTerminal_ = false;
    // Stands for the beginning of a colour in a text for `line`, followed by the colour's letter. No
    // text from outside can contain it.
    std::string mark_;
    size_t progressWidth_ = 0;
};

}  // namespace NV::tool
