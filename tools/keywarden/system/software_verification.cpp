// bcrypt.dll.

#include "system/software_verification.h"

#include <windows.h>

#include <bcrypt.h>

#include <memory>

#include "formats/hashing.h"
#include "system/key_storage.h"

namespace NV::tool {

namespace {

constexpr NTSTATUS invalidSignature = static_cast<NTSTATUS>(0xC000A000);

struct ProviderCloser {
    void operator()(void* algorithm) const { BCryptCloseAlgorithmProvider(algorithm, 0); }
};
struct KeyDestroyer {
    void operator()(void* key) const { BCryptDestroyKey(key); }
};

const wchar_t* algorithmOf(const SignatureScheme& scheme)
{
    if (scheme.isRsa)
        return BCRYPT_RSA_ALGORITHM;
    switch (bitsOfEcBlob(scheme.publicKey)) {
    case 256:
        return BCRYPT_ECDSA_P256_ALGORITHM;
    case 384:
        return BCRYPT_ECDSA_P384_ALGORITHM;
    default:
        return BCRYPT_ECDSA_P521_ALGORITHM;
    }
}

NTSTATUS verify(BCRYPT_KEY_HANDLE key, const SignatureScheme& scheme, Bytes& digest,
                Bytes& signature)
{
    const auto run = [&](void* padding, ULONG flags) {
        return BCryptVerifySignature(key, padding, digest.data(), static_cast<ULONG>(digest.size()),
                                     signature.data(), static_cast<ULONG>(signature.size()), flags);
    };
    if (!scheme.isRsa)
        return run(nullptr, 0);
    if (scheme.pssSalt) {
        BCRYPT_PSS_PADDING_INFO pss{scheme.hash.name.data(), static_cast<ULONG>(*scheme.pssSalt)};
        return run(&pss, BCRYPT_PAD_PSS);
    }
    BCRYPT_PKCS1_PADDING_INFO pkcs1{scheme.hash.name.data()};
    return run(&pkcs1, BCRYPT_PAD_PKCS1);
}

}  // namespace

std::optional<bool> verifiesInSoftware(const SignatureScheme& scheme, Bytes digest, Bytes signature)
{
    BCRYPT_ALG_HANDLE opened = nullptr;
    if (BCryptOpenAlgorithmProvider(&opened, algorithmOf(scheme), nullptr, 0) != 0)
        return std::nullopt;
    const std::unique_ptr<void, ProviderCloser> algorithm(opened);
    BCRYPT_KEY_HANDLE imported = nullptr;
    Bytes blob = scheme.publicKey;
    if (BCryptImportKeyPair(opened, nullptr,
                            scheme.isRsa ? BCRYPT_RSAPUBLIC_BLOB : BCRYPT_ECCPUBLIC_BLOB, &imported,
                            blob.data(), static_cast<ULONG>(blob.size()), 0) != 0)
        return std::nullopt;
    const std::unique_ptr<void, KeyDestroyer> key(imported);
    const NTSTATUS status = verify(imported, scheme, digest, signature);
    if (status == 0)
        return true;
    return status == invalidSignature ? std::optional(false) : std::nullopt;
}

}  // namespace NV::tool
