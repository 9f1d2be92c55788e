// The computations of the scripted token, in place of cryptography: patterns of the right length
// that depend on the whole input. Used by the functions in calls_crypto.cpp and calls_keys.cpp.

#pragma once

#include "call.h"

namespace NV::scripted {

// Starts an operation; returns CKR_OPERATION_ACTIVE, CKR_MECHANISM_INVALID, CKR_KEY_HANDLE_INVALID
// and so on as a token does. `flag` is the mechanism flag that the work needs.
CK_RV begin(Token& token, Session& session, Work work, const CK_MECHANISM* mechanism,
            CK_OBJECT_HANDLE key, CK_FLAGS flag);

// Each sets `output` to the result of the current operation for its data; not CKR_OK: no result.
CK_RV signature(Token& token, const Operation& operation, Bytes& output);
CK_RV digest(Token& token, const Operation& operation, Bytes& output);
CK_RV ciphertext(Token& token, const Operation& operation, Bytes& output);
CK_RV plaintext(Token& token, const Operation& operation, Bytes& output);

}  // namespace NV::scripted
