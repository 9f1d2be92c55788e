// The operations of a log in the Trace Event Format, which Perfetto and chrome://tracing read: a slice for
// each operation and for each of its calls, by process and thread.

#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <utility>

#include "log/log_operation.h"

namespace NV::tool {

class ChromeTrace {
public:
    // `secrets`: whether to show the secrets that messages contain. The trace has at most this many
    // operations, the latest ones.
    explicit ChromeTrace(bool secrets, size_t most = 200'000) : secrets_(secrets), most_(most) {}

    void add(const Operation& operation);

    // One JSON document, UTF-8.
    std::string text() const;

    // The number of operations that the trace does not have.
    size_t leftOut() const { return leftOut_; }

private:
    using Identity = std::pair<int64_t, int64_t>;  // process and thread

    bool secrets_;
    size_t most_;
    size_t leftOut_ = 0;
    std::deque<std::string> events_;        // of one operation each
    std::map<Identity, int64_t> ends_;      // of the latest operation of each thread, microseconds
    std::map<int64_t, std::string> names_;  // of the processes
};

}  // namespace NV::tool
