// The operations of a log as lines, JSON and bars.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "log/log_operation.h"
#include "log/log_summary.h"
#include "output.h"

namespace NV::tool {

// Calls as lines for people: time, name, result. Consecutive calls with the same name and result share
// a line with their number and total time.
struct CallLine {
    std::string text;
    bool failed = false;
};
std::vector<CallLine> describe(const std::vector<TokenCall>& calls);

Json toJson(const OperationFigures& figures);
Json toJson(const FailureKind& kind);
// `secrets`: whether to show the secrets that messages contain.
Json toJson(const Operation& operation, bool secrets);

// The place of a call on the time line of its operation, in milliseconds from its beginning.
struct Bar {
    double begin;
    double width;
};

// A bar for each call. A bar never begins before the end of the one before, because a thread makes one
// call at a time: the records have whole milliseconds only, so short calls would overlap otherwise. A call
// that did not return gets a width that can be seen.
std::vector<Bar> barsOf(const Operation& operation);

// The length of the time line: never zero, and long enough for every bar. The times of the records and
// ELAPSED can differ by a millisecond.
double spanOf(const Operation& operation, const std::vector<Bar>& bars);

// Whole microseconds, which formats for other programs have.
int64_t toMicros(double milliseconds);

}  // namespace NV::tool
