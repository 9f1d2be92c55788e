// The PKCS#11 calls of opening and freeing a provider, written bare: the cost of the token itself.

#pragma once

#include "scripted_token.h"

namespace NV::bench {

// The library must be loaded. Throws std::runtime_error when a call fails.
void openBare(const CK_FUNCTION_LIST& library);

// Throws std::runtime_error unless opening and freeing a provider with the chosen token calls the
// same functions in the same order. Records calls while it runs.
void expectSameCalls(test::ScriptedToken& token);

}  // namespace NV::bench
