// The operations of a log as an HTML page without external resources. Its script makes the rows that are
// on the screen, and no others, so a large log opens as fast as a small one.

#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "log/log_operation.h"
#include "log/log_summary.h"

namespace NV::tool {

class LogPage {
public:
    // `secrets`: whether to show the secrets that messages contain. The page has at most this many
    // operations of each sort, the latest ones.
    explicit LogPage(bool secrets, size_t mostFailed = 20'000, size_t mostOthers = 200'000)
        : secrets_(secrets), mostFailed_(mostFailed), mostOthers_(mostOthers)
    {
    }

    void add(const Operation& operation);

    // The whole page, UTF-8. The summary is of the same operations.
    std::string text(const std::string& title, const LogSummary& summary) const;

    // The number of operations that the page does not have.
    size_t leftOut() const { return leftOut_; }

private:
    // When it began, and its values as JSON.
    using Row = std::pair<int64_t, std::string>;

    size_t indexOf(std::string_view text);

    bool secrets_;
    size_t mostFailed_;
    size_t mostOthers_;
    size_t leftOut_ = 0;
    std::deque<Row> failed_;
    std::deque<Row> others_;
    // Texts that many operations have, each with its number.
    std::map<std::string, size_t, std::less<>> texts_;
};

// Its style sheet and its script.
extern const std::string_view pageStyle;
extern const std::string_view pageScript;

}  // namespace NV::tool
