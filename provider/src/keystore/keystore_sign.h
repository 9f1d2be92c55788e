// Signing and verifying on the token, as RSA and EC keys have them in common.

#pragma once

#include <windows.h>

#include "base/encoding.h"
#include "base/secret.h"
#include "keystore/keystore_call.h"
#include "keystore/keystore_key.h"
#include "keystore/keystore_mechanism.h"
#include "keystore/keystore_token.h"
#include "logger/trace.h"

namespace NV {

// What the token signs or verifies, and how.
struct SignInput {
    OwnedMechanism mechanism;
    Bytes data;
};

using MakeInput = SignInput (*)(const P11KeyObject& key, const SignatureCall& call);

// A MakeInput: the hash of the call, with the key's mechanismSignature.
SignInput hashAsItIs(const P11KeyObject& key, const SignatureCall& call);

// The whole operation, from ENTER to LEAVE, under the operation's name. The status is that
// of TokenSequence::finish. `input` is called after the private key
// is found. *pcbResult is the length that the token gave, at most the buffer's size; written on
// success only.
SECURITY_STATUS signOnToken(const Site& operation, const P11KeyObject& key, CK_KEY_TYPE keyType,
                            const SignatureCall& call, const SecretBytes& pin,
                            const TokenSequence::CleanUp& cleanUp, MakeInput input,
                            DWORD* pcbResult);

// The same for verifying, without a login. In modern, the certificate's public key takes the place of
// one that the token does not give.
SECURITY_STATUS verifyOnToken(const Site& operation, const P11KeyObject& key, CK_KEY_TYPE keyType,
                              const SignatureCall& call, MakeInput input);

}  // namespace NV
