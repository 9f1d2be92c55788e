// The operations of a log as figures, lines, JSON and HTML.

#pragma once

#include <string>
#include <vector>

#include "log/log_operation.h"
#include "output.h"

namespace NV::tool {

// The figures of all operations of one name. Times are in milliseconds.
struct OperationFigures {
    std::string name;
    size_t count = 0;
    size_t failures = 0;
    double median = 0;
    double percentile95 = 0;  // nearest rank
    double maximum = 0;
};

// Counts only finished operations. Sorted by name.
std::vector<OperationFigures> figuresOf(const std::vector<Operation>& operations);

// Calls as lines for people: time, name, result. Consecutive calls with the same name and result share
// a line with their number and total time.
struct CallLine {
    std::string text;
    bool failed = false;
};
std::vector<CallLine> describe(const std::vector<TokenCall>& calls);

// "ok", "NTE_INTERNAL_ERROR (0x8009002d)", or "SCARD_W_WRONG_CHV (0x8010006b), CKR_PIN_INCORRECT"; empty for an unfinished operation.
std::string statusOf(const Operation& operation);

Json toJson(const OperationFigures& figures);
// `secrets`: whether to show the secrets that messages contain.
Json toJson(const Operation& operation, bool secrets);

// A page without external resources: each operation as a time line of its token calls.
std::string toHtml(const std::vector<Operation>& operations, const std::string& title,
                   bool secrets);

}  // namespace NV::tool
