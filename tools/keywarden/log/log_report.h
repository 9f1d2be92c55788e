// Figures of a log's operations, for people and for scripts.

#pragma once

#include <string>
#include <vector>

#include "log/log_operation.h"
#include "output.h"

namespace NV::tool {

// One row for each operation name, times in milliseconds.
struct OperationFigures {
    std::string name;
    size_t count = 0;
    size_t failures = 0;
    double median = 0;
    double percentile95 = 0;  // nearest rank
    double maximum = 0;
};

// Finished operations only, in the order of their names.
std::vector<OperationFigures> figuresOf(const std::vector<Operation>& operations);

// Calls as lines for people: time, name, result. Neighbours of one name and result share a line,
// with their number and the sum of their times.
struct CallLine {
    std::string text;
    bool failed = false;
};
std::vector<CallLine> describe(const std::vector<TokenCall>& calls);

// "ok" or "NTE_INTERNAL_ERROR (0x8009002d)"; empty for an operation that is not finished.
std::string statusOf(const Operation& operation);

Json toJson(const OperationFigures& figures);
// `secrets`: show what messages say of secrets, too.
Json toJson(const Operation& operation, bool secrets);

// A page that needs nothing else: each operation as a time line of its token calls.
std::string toHtml(const std::vector<Operation>& operations, const std::string& title,
                   bool secrets);

}  // namespace NV::tool
