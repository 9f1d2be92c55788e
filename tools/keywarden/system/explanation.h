// What the results of PKCS#11 and the statuses of CNG mean: one table for the whole tool. Which status
// the provider gives for a result is in the module's own table, keystore/token_status.h.

#pragma once

#include <windows.h>

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "exit_code.h"

namespace NV::tool {

// A row of the table. Meaning and advice are sentences.
struct Explanation {
    uint32_t value;
    std::string_view name;     // "CKR_PIN_LOCKED", "NTE_INTERNAL_ERROR"
    std::string_view meaning;  // what happened
    std::string_view advice;   // what to do next; empty for CKR_OK alone
    // With which the tool ends when an operation fails for this reason.
    ExitCode exitCode;
};

// All rows: the results, then the statuses, each group by its value. No value is in both groups.
std::span<const Explanation> explanations();

// The row of a value or of a name; null if there is none. The name may be in either case.
const Explanation* explain(uint32_t value);
const Explanation* explain(std::string_view name);

// The name that is most like the text; empty if none is.
std::string_view nearestName(std::string_view text);

bool isResult(const Explanation& row);

// The status that the provider gives for a result, in modern.
const Explanation& statusOfResult(uint32_t result);
// The results that lead to the status in modern, by the module's table; empty for a status that no
// single result leads to.
std::vector<const Explanation*> resultsOfStatus(uint32_t status);

// "CKR_PIN_LOCKED (0x000000a4)", "NTE_INVALID_HANDLE (0x80090026)", or only the number if it has no known
// name. Also for the NTSTATUS values of bcrypt.dll.
std::string statusText(SECURITY_STATUS status);

}  // namespace NV::tool
