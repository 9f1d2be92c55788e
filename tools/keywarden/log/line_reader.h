// The lines of a file, in pieces of bounded size. Portable.

#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace NV::tool {

// Reads at most `room` bytes to `buffer` and returns their number; 0 if there are none now.
using ReadFn = std::function<size_t(char* buffer, size_t room)>;

// Reads a source that may still grow.
class LineReader {
public:
    explicit LineReader(ReadFn read) : read_(std::move(read)) {}

    // The next line without its line feed, valid until the next call. Of a line that is longer than any
    // record (128 KiB), only the beginning. Empty if there is no more whole line now; call it again
    // when the source has grown.
    std::optional<std::string_view> next();

    // What follows the last line feed: the line that is not whole. Empty if there is nothing.
    std::string_view rest() const;

private:
    bool fill();

    ReadFn read_;
    std::string buffer_;
    size_t begin_ = 0;     // of what has not been given yet
    size_t searched_ = 0;  // up to here, there is no line feed
    bool skipping_ = false;
};

}  // namespace NV::tool
