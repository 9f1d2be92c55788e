// Verification and encryption with a public key alone, by BCrypt: for an imported RSA key, and in the
// place of a public key that the token does not give. Only with mode=modern.

#pragma once

#include "base/cng.h"

#include <optional>

#include "keystore/keystore_call.h"
#include "keystore/keystore_key.h"
#include "keystore/token_status.h"
#include "logger/trace.h"

namespace NV {

// Whether a failure of the token's verification or encryption asks for the certificate's key.
bool needsCertificateKey(const TokenFailure& failure);

// The key is the one of getPubkeyBlob. The key's checkSignature or checkCipher has accepted the call.
// Nothing if BCrypt does not have the curve, the padding or the hash, or cannot take the key.

// ERROR_SUCCESS, NTE_BAD_SIGNATURE or NTE_NO_MEMORY.
std::optional<SECURITY_STATUS> verifyWithoutToken(const Site& operation, const P11KeyObject& key,
                                                  const SignatureCall& call);

// ERROR_SUCCESS; NTE_BAD_LEN for an input that is too long for the padding; NTE_INVALID_PARAMETER for
// a null input with a length, and for a number that is not below the modulus; NTE_NO_MEMORY. A null
// pbOutput asks for the length. *call.pcbResult is written on success only.
std::optional<SECURITY_STATUS> encryptWithoutToken(const Site& operation, const P11KeyObject& key,
                                                   const CipherCall& call);

}  // namespace NV
