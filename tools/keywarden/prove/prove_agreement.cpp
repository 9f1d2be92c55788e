// The step that agrees on a secret: both sides derive the same key.

#include <windows.h>

#include <bcrypt.h>

#include <cstring>
#include <memory>
#include <optional>
#include <string>

#include "base/scope_exit.h"
#include "base/secret.h"
#include "failure.h"
#include "formats/hashing.h"
#include "prove/bcrypt_key.h"
#include "prove/ec_curve.h"
#include "prove/proving.h"
#include "system/explanation.h"

namespace NV::tool {

namespace {

constexpr DWORD derivedSize = 32;  // of the KDF "HASH" with SHA-256

// The other side: its public key as a blob for ECDH, and the key that it derives.
struct Peer {
    Bytes publicKey;
    SecretBytes derived;
    std::string text;
};

class Sha256Kdf {
public:
    BCryptBufferDesc* get() { return &list_; }

private:
    wchar_t name_[7] = L"SHA256";
    BCryptBuffer buffer_{sizeof name_, KDF_HASH_ALGORITHM, name_};
    BCryptBufferDesc list_{BCRYPTBUFFER_VERSION, 1, &buffer_};
};

Bytes withMagic(Bytes blob, ULONG magic)
{
    if (blob.size() >= sizeof magic)
        std::memcpy(blob.data(), &magic, sizeof magic);
    return blob;
}

BcryptKey generatedKey(const BcryptAlgorithm& algorithm, DWORD bits)
{
    BCRYPT_KEY_HANDLE handle = nullptr;
    requireOfSystem(BCryptGenerateKeyPair(algorithm.get(), &handle, bits, 0),
                    "BCryptGenerateKeyPair");
    BcryptKey key(handle);
    requireOfSystem(BCryptFinalizeKeyPair(handle, 0), "BCryptFinalizeKeyPair");
    return key;
}

Bytes exported(const BcryptKey& key)
{
    ULONG size = 0;
    requireOfSystem(
        BCryptExportKey(key.get(), nullptr, BCRYPT_ECCPUBLIC_BLOB, nullptr, 0, &size, 0),
        "BCryptExportKey");
    Bytes blob(size);
    requireOfSystem(
        BCryptExportKey(key.get(), nullptr, BCRYPT_ECCPUBLIC_BLOB, blob.data(), size, &size, 0),
        "BCryptExportKey");
    blob.resize(size);
    return blob;
}

NTSTATUS deriveByBcrypt(const BcryptKey& own, const BcryptKey& other, SecretBytes& derived)
{
    BCRYPT_SECRET_HANDLE secret = nullptr;
    NTSTATUS status = BCryptSecretAgreement(own.get(), other.get(), &secret, 0);
    if (status != 0)
        return status;
    const std::unique_ptr<void, decltype(&BCryptDestroySecret)> owner(secret, BCryptDestroySecret);
    Sha256Kdf parameters;
    derived.resize(derivedSize);
    ULONG size = 0;
    status = BCryptDeriveKey(secret, BCRYPT_KDF_HASH, parameters.get(), derived.data(), derivedSize,
                             &size, 0);
    derived.resize(status == 0 ? size : 0);
    return status;
}

// Whether BCrypt can agree and derive, tried with two keys of its own: what it cannot do is no fault of
// the provider. Returns the status of the call that failed.
NTSTATUS trialOfBcrypt(const BcryptAlgorithm& algorithm, const EcCurve& curve)
{
    SecretBytes derived;
    return deriveByBcrypt(generatedKey(algorithm, curve.bits), generatedKey(algorithm, curve.bits),
                          derived);
}

Peer ephemeralPeer(const BcryptAlgorithm& algorithm, const EcCurve& curve, const Bytes& tokenKey)
{
    const BcryptKey own = generatedKey(algorithm, curve.bits);
    const BcryptKey other =
        bcryptPublicKey(algorithm, BCRYPT_ECCPUBLIC_BLOB, withMagic(tokenKey, curve.ecdhMagic));
    Peer peer{exported(own), {}, "with an ephemeral key of BCrypt"};
    requireOfSystem(deriveByBcrypt(own, other, peer.derived),
                    "BCryptDeriveKey with the exported public key");
    return peer;
}

// With the private key 1, the agreed secret is the x-coordinate of the token's own public key, so the
// other side needs no more than a hash.
Peer knownPeer(const EcCurve& curve, const Bytes& tokenKey)
{
    const ULONG head[] = {curve.ecdhMagic, static_cast<ULONG>(curve.generatorX.size() / 2)};
    Bytes publicKey(sizeof head);
    std::memcpy(publicKey.data(), head, sizeof head);
    for (const std::string_view coordinate : {curve.generatorX, curve.generatorY}) {
        const Bytes bytes = hexDecode(std::string(coordinate));
        publicKey.insert(publicKey.end(), bytes.begin(), bytes.end());
    }
    if (tokenKey.size() != publicKey.size())
        throw Failure("the exported public key has " + std::to_string(tokenKey.size()) +
                      " bytes, not " + std::to_string(publicKey.size()));
    const auto x = tokenKey.begin() + sizeof head;
    const Bytes hash = hashBytes(Bytes(x, x + head[1]), hashNamed("sha256"));
    return {publicKey, SecretBytes(hash.begin(), hash.end()),
            "with the private key 1, because BCrypt does not derive keys here: "};
}

SecretBytes deriveByProvider(const ProvedKey& key, const Bytes& peerKey)
{
    const KeyStorage& storage = key.opened().storage();
    const Key peer(storage, BCRYPT_ECCPUBLIC_BLOB, peerKey);
    NCRYPT_SECRET_HANDLE secret = 0;
    require(storage->SecretAgreement(storage.handle(), key.opened().handle(), peer.handle(),
                                     &secret, 0),
            "NCryptSecretAgreement", PinUse::asks);
    requireResult(secret != 0, "NCryptSecretAgreement");
    const ScopeExit release([&] { atEnd([&] { storage->FreeSecret(storage.handle(), secret); }); });
    Sha256Kdf parameters;
    SecretBytes derived(derivedSize);
    DWORD size = 0;
    require(storage->DeriveKey(storage.handle(), secret, BCRYPT_KDF_HASH, parameters.get(),
                               derived.data(), derivedSize, &size, 0),
            "NCryptDeriveKey");
    derived.resize(size);
    return derived;
}

}  // namespace

std::string proveAgreement(Proving&, ProvedKey& key)
{
    key.opened();
    const EcCurve& curve = curveOfKey(key.publicKey);
    const BcryptAlgorithm algorithm = bcryptAlgorithm(curve.ecdhAlgorithm);
    const NTSTATUS trial = trialOfBcrypt(algorithm, curve);
    Peer peer = trial == 0 ? ephemeralPeer(algorithm, curve, key.publicKey)
                           : knownPeer(curve, key.publicKey);
    if (trial != 0)
        peer.text += statusText(trial);
    if (deriveByProvider(key, peer.publicKey) != peer.derived)
        throw Failure("NCryptDeriveKey gives another key than the other side, " + peer.text);
    return "both sides derive the same " + std::to_string(derivedSize) + " bytes, " + peer.text;
}

}  // namespace NV::tool
