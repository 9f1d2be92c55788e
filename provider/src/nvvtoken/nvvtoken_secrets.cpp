// The provider's secret operations: agreement with a token key, derivation, release.

#include "nvvtoken/nvvtoken.h"

#include <memory>
#include <mutex>
#include <new>
#include <span>
#include <string_view>
#include <utility>

#include "base/text.h"
#include "config/mode.h"
#include "keystore/keystore_hash.h"
#include "keystore/keystore_secret.h"
#include "logger/trace.h"
#include "nvvtoken/nvvtoken_failures.h"
#include "nvvtoken/nvvtoken_parameters.h"
#include "nvvtoken/nvvtoken_work.h"

namespace NV {

namespace {

static_assert(bufferTypeHashAlgorithm == KDF_HASH_ALGORITHM);
static_assert(bufferTypePrepend == KDF_SECRET_PREPEND && bufferTypeAppend == KDF_SECRET_APPEND);
static_assert(bufferTypeHmacKey == KDF_HMAC_KEY);

SECURITY_STATUS readBuffer(const Site& site, const ParameterBuffer& buffer, bool useHmacKdf,
                           DerivationParameters& parameters)
{
    const ParameterKind kind = parameterKind(buffer, useHmacKdf);
    switch (kind) {
    case ParameterKind::hashName:
        parameters.hasHashName = true;
        takeParameter(kind, buffer, parameters);
        if (!buffer.readable())
            parameters.hashName.clear();
        NV_UNDER(DBG, site, "Using KDF Hash Algorithm (KDF_HASH_ALGORITHM) as [%s]",
                 toUtf8(parameters.hashName).c_str());
        return buffer.readable() ? ERROR_SUCCESS : NTE_INVALID_PARAMETER;
    case ParameterKind::prepend:
        NV_UNDER(DBG, site, "Using secret prepend item (KDF_SECRET_PREPEND)..");
        break;
    case ParameterKind::append:
        NV_UNDER(DBG, site, "Using secret append item (KDF_SECRET_APPEND)..");
        break;
    case ParameterKind::hmacKey:
        break;
    case ParameterKind::misplacedHmacKey:
        NV_UNDER(ERR, site, "KDF_HMAC_KEY is only expected for HMAC based KDF (BCRYPT_KDF_HMAC)!!");
        return NTE_INVALID_PARAMETER;
    case ParameterKind::unknown:
        NV_UNDER(DBG, site, "Unknown NCryptBufferType encountered!!");
        return NTE_INVALID_PARAMETER;
    }
    if (!buffer.readable())
        return NTE_INVALID_PARAMETER;
    try {
        takeParameter(kind, buffer, parameters);
    } catch (const std::bad_alloc&) {
        return failureRules().noMemory;
    }
    return ERROR_SUCCESS;
}

SECURITY_STATUS readParameters(const Site& site, const NCryptBufferDesc* list, bool useHmacKdf,
                               DerivationParameters& parameters)
{
    if (list == nullptr)
        return ERROR_SUCCESS;
    if (list->pBuffers == nullptr && list->cBuffers != 0)
        return NTE_INVALID_PARAMETER;
    for (const BCryptBuffer& buffer : std::span(list->pBuffers, list->cBuffers)) {
        const SECURITY_STATUS status = readBuffer(
            site, {buffer.cbBuffer, buffer.BufferType, buffer.pvBuffer}, useHmacKdf, parameters);
        if (status != ERROR_SUCCESS)
            return status;
    }
    return ERROR_SUCCESS;
}

SECURITY_STATUS readKdf(const Site& site, std::wstring_view name, bool& useHmacKdf)
{
    useHmacKdf = name == BCRYPT_KDF_HMAC;
    if (useHmacKdf) {
        NV_UNDER(DBG, site, "Using the HMAC based KDF (BCRYPT_KDF_HMAC)");
        return ERROR_SUCCESS;
    }
    if (name == BCRYPT_KDF_HASH) {
        NV_UNDER(DBG, site, "Using the HASH based KDF (BCRYPT_KDF_HASH)");
        return ERROR_SUCCESS;
    }
    if (name == BCRYPT_KDF_TLS_PRF) {
        NV_UNDER(ERR, site, "Using the TLS-PRF based KDF (BCRYPT_KDF_TLS_PRF) not supported");
        return NTE_NOT_SUPPORTED;
    }
    NV_UNDER(ERR, site, "Unknown key derivation function (KDF) identifier!!");
    return NTE_INVALID_PARAMETER;
}

}  // namespace

SECURITY_STATUS Provider::SecretAgreement(NCRYPT_KEY_HANDLE hPrivKey, NCRYPT_KEY_HANDLE hPubKey,
                                          NCRYPT_SECRET_HANDLE* phAgreedSecret, DWORD dwFlags)
{
    constexpr Site here = NV_HERE;
    Trace trace(here);
    trace.arguments(pointer("hPrivKey", hPrivKey), pointer("hPubKey", hPubKey),
                    pointer("phAgreedSecret", phAgreedSecret), flagBits("dwFlags", dwFlags));
    std::unique_lock guard(lock_);
    trace.startClock();

    if (hPrivKey == 0 || hPubKey == 0 || phAgreedSecret == nullptr)
        return trace.end(NTE_INVALID_PARAMETER);
    if ((dwFlags & NCRYPT_SILENT_FLAG) != 0)
        NV_DBG("NCRYPT_SILENT_FLAG is enabled");
    return trace.end(withKey(here, guard, hPrivKey, [&](P11KeyObject& key) -> SECURITY_STATUS {
        const std::shared_ptr<const P11KeyObject> peer = (this->*importWays().peer)(here, hPubKey);
        if (peer == nullptr)
            return NTE_INVALID_HANDLE;
        if (mustStaySilent(here, dwFlags))
            return NTE_SILENT_CONTEXT;
        return withPIN(here, key, [&](Pkcs11& p11, const SecretBytes& pin) {
            return agree(here, p11, key, *peer, phAgreedSecret, pin);
        });
    }));
}

std::shared_ptr<const P11KeyObject> Provider::foundPeer(const Site& site, NCRYPT_KEY_HANDLE hPubKey)
{
    std::shared_ptr<const P11KeyObject> peer = keyStore_.ownerOf(hPubKey);
    if (peer != nullptr && peer->algorithm() != "RSA")
        return peer;
    NV_UNDER(ERR, site, "Not Found public Key of a curve = %p", asPointer(hPubKey));
    return nullptr;
}

// Compat: there is no look-up of this handle. It must be one that ImportKey returned.
std::shared_ptr<const P11KeyObject> Provider::givenPeer(const Site&, NCRYPT_KEY_HANDLE hPubKey)
{
    // NOLINTNEXTLINE(performance-no-int-to-ptr)
    return {std::shared_ptr<void>(), reinterpret_cast<const P11KeyObject*>(hPubKey)};
}

SECURITY_STATUS Provider::agree(const Site& site, Pkcs11& p11, P11KeyObject& key,
                                const P11KeyObject& peer, NCRYPT_SECRET_HANDLE* phAgreedSecret,
                                const SecretBytes& pin)
{
    Bytes peerKey = base64Decode(peer.publicKey());
    NV_UNDER(DBG, site, "Peer's public key(b64)=[%s]", peer.publicKey().c_str());
    NV_UNDER(DBG, site, "Peer's public key=[%s], %d bytes", hexEncode(peerKey).c_str(),
             static_cast<int>(peerKey.size()));
    NCRYPT_SECRET_HANDLE handle = 0;
    const SECURITY_STATUS status =
        key.secretAgreement(&p11, peerKey.data(), static_cast<DWORD>(peerKey.size()), &handle, pin);
    if (status != ERROR_SUCCESS) {
        NV_UNDER(ERR, site, "SecretAgreement() failed with error-code:0x%08x",
                 static_cast<unsigned>(status));
        return status;
    }
    // NOLINTNEXTLINE(performance-no-int-to-ptr): a secret handle is the record's address.
    OwnedSecret secret(reinterpret_cast<AgreedSecret*>(handle));
    NV_UNDER(DBG, site, "SecretAgreement() succeeded, handle =%p", asPointer(handle));
    // Only now: a secret that cannot be reported must not stay in the list.
    SecretList::instance().add(std::move(secret));
    *phAgreedSecret = handle;
    return ERROR_SUCCESS;
}

SECURITY_STATUS Provider::DeriveKey(NCRYPT_SECRET_HANDLE hSharedSecret, LPCWSTR pwszKDF,
                                    NCryptBufferDesc* pParameterList, PBYTE pbDerivedKey,
                                    DWORD cbDerivedKey, DWORD* pcbResult, ULONG dwFlags)
{
    constexpr Site here = NV_HERE;
    Trace trace(here);
    trace.arguments(pointer("hSharedSecret", hSharedSecret), text("pwszKDF", pwszKDF),
                    pointer("pParameterList", pParameterList),
                    pointer("pbDerivedKey", pbDerivedKey), number("cbDerivedKey", cbDerivedKey),
                    pointer("pcbResult", pcbResult), flagBits("dwFlags", dwFlags));
    std::unique_lock guard(lock_);
    trace.startClock();

    if (hSharedSecret == 0 || pwszKDF == nullptr || pcbResult == nullptr ||
        (pbDerivedKey != nullptr && cbDerivedKey == 0))
        return trace.end(NTE_INVALID_PARAMETER);
    if (pParameterList == nullptr)
        NV_WRN("pParameterList(optional) field is NULL!!");
    const bool secretAsHmacKey = (dwFlags & KDF_USE_SECRET_AS_HMAC_KEY_FLAG) != 0;
    if (secretAsHmacKey)
        NV_DBG("KDF_USE_SECRET_AS_HMAC_KEY_FLAG flag is enabled");
    bool useHmacKdf = false;
    if (const SECURITY_STATUS status = readKdf(here, pwszKDF, useHmacKdf); status != ERROR_SUCCESS)
        return trace.end(status);
    DerivationParameters parameters;
    if (const SECURITY_STATUS status = readParameters(here, pParameterList, useHmacKdf, parameters);
        status != ERROR_SUCCESS)
        return trace.end(status);
    if (!parameters.hasHashName && mode().shortensDerivedKeys()) {
        NV_DBG("No KDF Hash Algorithm is given, using [SHA1]");
        parameters.hashName = BCRYPT_SHA1_ALGORITHM;
    }
    const HashAlgorithm* hash = findHashAlgorithm(parameters.hashName.c_str());
    if (hash == nullptr) {
        NV_ERR("Unsupported KDF Hash Algorithm [%s]", toUtf8(parameters.hashName).c_str());
        return trace.end(NTE_INVALID_PARAMETER);
    }
    // A copy, because a thread with another provider may free the secret during the derivation.
    const auto secret = SecretList::instance().copy(hSharedSecret);
    if (!secret) {
        NV_ERR("Not found secretHandle(%p) in managed Global SecretHandle List",
               asPointer(hSharedSecret));
        return trace.end(NTE_INVALID_HANDLE);
    }
    if (pkcs11_->joined())
        guard.unlock();
    return trace.end(onToken(here, [&](Pkcs11& p11) {
        return keyStore_.derive({&p11, slot_ != nullptr ? slot_->id() : 0, hSharedSecret, *secret,
                                 pbDerivedKey, cbDerivedKey, pcbResult, *hash, useHmacKdf,
                                 secretAsHmacKey ? *secret : parameters.hmacKey, parameters.prepend,
                                 parameters.append});
    }));
}

SECURITY_STATUS Provider::FreeSecret(NCRYPT_SECRET_HANDLE hSharedSecret)
{
    Trace trace(NV_HERE);
    trace.arguments(pointer("hSharedSecret", hSharedSecret));
    const std::lock_guard guard(lock_);
    trace.startClock();

    if (hSharedSecret == 0)
        return trace.end(NTE_INVALID_PARAMETER);
    size_t size = 0;
    if (const OwnedSecret secret = SecretList::instance().remove(hSharedSecret, size)) {
        NV_DBG("Found secretHandle(%p) in managed Global SecretHandle List of size (%d)",
               asPointer(hSharedSecret), static_cast<int>(size));
        return trace.end(ERROR_SUCCESS);
    }
    NV_WRN("Not found secretHandle(%p) in managed Global SecretHandle List",
           asPointer(hSharedSecret));
    return trace.end(importWays().unknownSecret);
}

}  // namespace NV
