// Keys of BCrypt, the judge of what the provider does.

#pragma once

#include <windows.h>

#include <bcrypt.h>

#include <memory>

#include "base/encoding.h"

namespace NV::tool {

struct ProvedKey;

struct BcryptAlgorithmCloser {
    void operator()(void* algorithm) const { BCryptCloseAlgorithmProvider(algorithm, 0); }
};
struct BcryptKeyDestroyer {
    void operator()(void* key) const { BCryptDestroyKey(key); }
};
using BcryptAlgorithm = std::unique_ptr<void, BcryptAlgorithmCloser>;
using BcryptKey = std::unique_ptr<void, BcryptKeyDestroyer>;

// Throws NotPossible if BCrypt does not have the algorithm.
BcryptAlgorithm bcryptAlgorithm(const wchar_t* name);

// The public key from its blob, which is of that type. The algorithm must outlive it. Throws Failure.
BcryptKey bcryptPublicKey(const BcryptAlgorithm& algorithm, const wchar_t* type, Bytes blob);

// The exported public key of a key, for verifying. The members are destroyed in the right order.
struct VerificationKey {
    BcryptAlgorithm algorithm;
    BcryptKey key;
};
VerificationKey verificationKey(const ProvedKey& key);

// Throws unless the signature of the digest is good, and bad for another digest: a judge that calls
// everything good would prove nothing. RSA signatures have the padding of PKCS #1 v1.5 with SHA-256.
// `key` is a BCRYPT_KEY_HANDLE.
void requireGoodSignature(void* key, bool isRsa, Bytes digest, Bytes signature);

}  // namespace NV::tool
