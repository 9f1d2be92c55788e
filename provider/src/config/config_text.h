// The modern reading of a configuration file: it forgives what editors write. Portable, without logging.
// Config uses it; "keywarden check" shows what it says about each line.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "config/config.h"

namespace NV {

// What a line is. `key` and `value` belong to a setting; blanks and tabs at their ends are gone.
struct ConfigLine {
    enum class Kind : uint8_t {
        nothing,     // an empty line, or a comment: its first character after blanks and tabs is #
        setting,     // key=value
        unreadable,  // no "=", no key, or a zero byte
    };

    Kind kind = Kind::nothing;
    std::string key;
    std::string value;
};

// Reads a line without its line feed. One carriage return at its end belongs to the line end.
ConfigLine readConfigLine(std::string_view line);

struct ConfigText {
    struct Unreadable {
        size_t number;  // of the line, from 1
        std::string text;
    };
    // A file of another kind can have any number of lines that cannot be read.
    static constexpr size_t mostKept = 10;
    static constexpr size_t mostOfLine = 100;  // bytes

    // A later line of a key replaces an earlier one. Compat: not "mode", which is "modern" if one of the
    // lines says so.
    Settings settings;
    // One of the lines is mode=modern.
    bool modern = false;
    // The first mostKept lines that cannot be read, each cut to mostOfLine bytes, and the number of all.
    std::vector<Unreadable> unreadable;
    size_t unreadableCount = 0;
};

// Reads the text of a file, with or without UTF-8's byte order mark. Never fails.
ConfigText readConfigText(std::string_view text);

}  // namespace NV
