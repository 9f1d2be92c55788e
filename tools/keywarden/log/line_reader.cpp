// Reading in large pieces: a log can have hundreds of megabytes.

#include "log/line_reader.h"

#include <cstring>
#include <utility>

namespace NV::tool {

namespace {

constexpr size_t pieceSize = size_t{256} * 1024;
constexpr size_t longestLine = size_t{128} * 1024;

}  // namespace

std::optional<std::string_view> LineReader::next()
{
    for (;;) {
        const void* feed =
            std::memchr(buffer_.data() + searched_, '\n', buffer_.size() - searched_);
        if (feed != nullptr) {
            const auto end = static_cast<size_t>(static_cast<const char*>(feed) - buffer_.data());
            const std::string_view line(buffer_.data() + begin_, end - begin_);
            begin_ = searched_ = end + 1;
            if (!std::exchange(skipping_, false))
                return line;
            continue;  // the end of a line whose beginning was given
        }
        searched_ = buffer_.size();
        if (searched_ - begin_ > longestLine) {
            const std::string_view line(buffer_.data() + begin_, longestLine);
            begin_ = searched_;
            if (!std::exchange(skipping_, true))
                return line;
            continue;
        }
        if (!fill())
            return std::nullopt;
    }
}

std::string_view LineReader::rest() const
{
    return skipping_ ? std::string_view() : std::string_view(buffer_).substr(begin_);
}

// Appends a piece of the source. False if it has none now.
bool LineReader::fill()
{
    buffer_.erase(0, begin_);
    searched_ -= begin_;
    begin_ = 0;
    const size_t kept = buffer_.size();
    buffer_.resize(kept + pieceSize);
    buffer_.resize(kept + read_(buffer_.data() + kept, pieceSize));
    return buffer_.size() > kept;
}

}  // namespace NV::tool
