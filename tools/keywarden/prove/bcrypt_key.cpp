// bcrypt.dll.

#include "prove/bcrypt_key.h"

#include <utility>

#include "failure.h"
#include "prove/ec_curve.h"
#include "prove/proving.h"
#include "system/explanation.h"
#include "text.h"

namespace NV::tool {

namespace {

NTSTATUS verifySignature(void* key, bool isRsa, Bytes& digest, Bytes& signature)
{
    BCRYPT_PKCS1_PADDING_INFO pkcs1{BCRYPT_SHA256_ALGORITHM};
    return BCryptVerifySignature(
        key, isRsa ? &pkcs1 : nullptr, digest.data(), static_cast<ULONG>(digest.size()),
        signature.data(), static_cast<ULONG>(signature.size()), isRsa ? BCRYPT_PAD_PKCS1 : 0);
}

}  // namespace

BcryptAlgorithm bcryptAlgorithm(const wchar_t* name)
{
    BCRYPT_ALG_HANDLE algorithm = nullptr;
    const NTSTATUS status = BCryptOpenAlgorithmProvider(&algorithm, name, nullptr, 0);
    if (status != 0)
        throw NotPossible("BCrypt has no " + toUtf8(name) + ": " + statusText(status));
    return BcryptAlgorithm(algorithm);
}

BcryptKey bcryptPublicKey(const BcryptAlgorithm& algorithm, const wchar_t* type, Bytes blob)
{
    BCRYPT_KEY_HANDLE key = nullptr;
    requireOfSystem(BCryptImportKeyPair(algorithm.get(), nullptr, type, &key, blob.data(),
                                        static_cast<ULONG>(blob.size()), 0),
                    "BCryptImportKeyPair of the exported public key");
    return BcryptKey(key);
}

VerificationKey verificationKey(const ProvedKey& key)
{
    BcryptAlgorithm algorithm = bcryptAlgorithm(
        key.isRsa ? BCRYPT_RSA_ALGORITHM : curveOfKey(key.publicKey).ecdsaAlgorithm);
    BcryptKey imported = bcryptPublicKey(
        algorithm, key.isRsa ? BCRYPT_RSAPUBLIC_BLOB : BCRYPT_ECCPUBLIC_BLOB, key.publicKey);
    return {std::move(algorithm), std::move(imported)};
}

void requireGoodSignature(void* key, bool isRsa, Bytes digest, Bytes signature)
{
    const NTSTATUS status = verifySignature(key, isRsa, digest, signature);
    if (status != 0)
        throw Failure(
            "the signature does not verify: " + statusText(status),
            "The private key on the token does not belong to the public key, or the token "
            "signs something else. \"keywarden check --sign\" tries the token alone.",
            ExitCode::failed, status);
    for (unsigned char& byte : digest)
        byte = static_cast<unsigned char>(~byte);
    if (verifySignature(key, isRsa, digest, signature) == 0)
        throw Failure("the signature verifies for another hash, too");
}

}  // namespace NV::tool
