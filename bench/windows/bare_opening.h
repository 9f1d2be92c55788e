// The PKCS#11 calls of opening and freeing a provider, written bare: what the token itself costs.

#pragma once

#include "scripted_token.h"

namespace NV::bench {

// The library must have been loaded. Throws std::runtime_error when a call fails.
void openBare(const CK_FUNCTION_LIST& library);

// Throws std::runtime_error unless opening and freeing a provider on the chosen token calls the same
// functions in the same order. Calls are recorded meanwhile.
void expectSameCalls(test::ScriptedToken& token);

}  // namespace NV::bench
