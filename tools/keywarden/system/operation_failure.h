// Why an operation of the provider failed, as far as it can be found out afterwards.

#pragma once

#include <windows.h>

#include <string>

#include "failure.h"

namespace NV::tool {

// Whether an operation asks for the PIN.
enum class PinUse { none, asks };

// "<what> failed: <status>, <PKCS#11 result>", with what they mean as the advice, and their exit code.
// The result is the one that the status stands for, or that of this process in the log. If the log is
// off, the state of the token's PIN is read instead, for a status that does not tell the reason and an
// operation that asks for the PIN.
Failure operationFailure(SECURITY_STATUS status, const std::string& what, PinUse pin);

}  // namespace NV::tool
