// Which operations of a log are shown. Portable.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "log/log_operation.h"

namespace NV::tool {

// A moment as people write it, in milliseconds as in LogRecord: "2026-03-04", "2026-03-04 17:05", with
// seconds or milliseconds, "17:05" of the day of `now`, or how long ago: "90s", "30m", "2h", "7d". A moment
// that is a day, a minute or a second is its beginning, or with `last` its last millisecond. `now` has
// the form of LogRecord::time. Empty for any other text.
std::optional<int64_t> parseMoment(std::string_view text, std::string_view now, bool last);

struct LogFilter {
    std::string operation = {};         // empty: all
    std::optional<int64_t> since = {};  // milliseconds as in LogRecord, included
    std::optional<int64_t> until = {};  // likewise
    std::optional<uint32_t> process = {};
    bool failed = false;  // those that failed or did not finish, alone

    bool takes(const Operation& found) const;
    // Whether the log of a day, "2026-03-04", can contain an operation that it takes.
    bool takesDay(std::string_view day) const;
};

}  // namespace NV::tool
