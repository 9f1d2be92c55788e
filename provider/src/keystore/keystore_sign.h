// Signing and verifying on the token, as RSA and EC keys have them in common.

#pragma once

#include <windows.h>

#include <functional>

#include "base/encoding.h"
#include "base/secret.h"
#include "keystore/keystore_call.h"
#include "keystore/keystore_key.h"
#include "keystore/keystore_mechanism.h"
#include "keystore/keystore_token.h"
#include "logger/trace.h"

namespace NV {

// What the token signs, and how.
struct SignInput {
    OwnedMechanism mechanism;
    Bytes data;
};

// The whole operation, from ENTER to LEAVE, under the operation's name. ERROR_SUCCESS, or
// NTE_INTERNAL_ERROR for anything that fails on the token. `input` is called after the private key
// is found. *pcbResult is the length that the token gave, at most the buffer's size; written on
// success only.
SECURITY_STATUS signOnToken(const Site& operation, const P11KeyObject& key, CK_KEY_TYPE keyType,
                            const SignatureCall& call, const SecretBytes& pin,
                            const TokenSequence::CleanUp& cleanUp,
                            const std::function<SignInput()>& input, DWORD* pcbResult);

// The same for verifying the hash as it is, with the key's mechanismSignature.
SECURITY_STATUS verifyOnToken(const Site& operation, const P11KeyObject& key, CK_KEY_TYPE keyType,
                              const SignatureCall& call);

}  // namespace NV
