// The padding information of an RSA operation, checked before anything is asked of the user and the
// token. For the RSA key object. In classic the padding is taken as it is, without these checks.

#pragma once

#include "base/cng.h"

#include "base/encoding.h"
#include "keystore/keystore_call.h"
#include "logger/trace.h"

namespace NV {

// Failures are logged under the operation's name.

// The padding information that the flags need must not be null. ERROR_SUCCESS for a signature that the
// key can make or verify. NTE_NOT_SUPPORTED for an unknown hash name, and for a null one with PSS.
// NTE_INVALID_PARAMETER for a hash whose length is not the name's. With several flags, PSS decides.
SECURITY_STATUS checkRsaSignature(const Site& operation, const SignatureCall& call);

// ERROR_SUCCESS for a padding of encryption and decryption. NTE_NOT_SUPPORTED without a flag, and for
// OAEP with an unknown or a null hash name.
SECURITY_STATUS checkRsaCipher(const Site& operation, const CipherCall& call);

// What a PKCS #1 v1.5 signature contains, by a padding that was accepted: DigestInfo and hash, or the
// hash alone if no name is given.
Bytes digestInfoAndHash(const SignatureCall& call);

}  // namespace NV
