// Verifying a signature with the system's functions, without the token.

#pragma once

#include <cstddef>
#include <optional>

#include "base/encoding.h"
#include "keystore/keystore_hash.h"

namespace NV::tool {

struct SignatureScheme {
    Bytes publicKey;  // a public key blob of CNG
    bool isRsa;
    const HashAlgorithm& hash;
    std::optional<size_t> pssSalt;  // in bytes; empty for PKCS #1 v1.5 and for ECDSA
};

// An ECDSA signature is r followed by s. Empty if the system cannot verify such signatures.
std::optional<bool> verifiesInSoftware(const SignatureScheme& scheme, Bytes digest,
                                       Bytes signature);

}  // namespace NV::tool
