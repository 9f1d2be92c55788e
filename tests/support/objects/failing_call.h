// What a token operation logs when one of its calls fails, worked out from the log of a good run: all
// until the call, the error, and the part of each clean-up step that still runs. Which steps run is
// the fault matrix's concern. Used by the tests of key operations, agreement and derivation.

#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "trace_log.h"

namespace NV::test {

struct LoggedCall {
    std::string name;
    uint32_t nth;  // of the calls with this name

    // "C_Sign", and "C_GetAttributeValue 2" for a second call.
    std::string label() const { return nth == 1 ? name : name + " " + std::to_string(nth); }
};

// The calls of a run in their order, from its whole log.
std::vector<LoggedCall> loggedCalls(const LogLines& run);

// The beginnings of the error messages by the call's label. A result in parentheses follows each.
using ErrorTexts = std::map<std::string, std::string>;

// The texts of the calls that all token operations make, with those of the operation's own calls.
ErrorTexts withCommonErrors(ErrorTexts own);

// The operation's lines of a run in which the call `index` fails, masked. `seen`: the names of the
// calls that the token saw in that run.
std::string linesWithFailure(const LogLines& good, const std::string& operation, size_t index,
                             const std::string& error, const std::vector<std::string>& seen);

}  // namespace NV::test
