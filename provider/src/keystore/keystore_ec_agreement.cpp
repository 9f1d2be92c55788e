// ECDH on the token: a private key and a peer's public point give a secret.

#include "keystore/keystore_ec.h"

#include <array>
#include <utility>

#include "keystore/keystore_call.h"
#include "keystore/keystore_secret.h"
#include "keystore/keystore_token.h"

namespace NV {

namespace {

// CKM_ECDH1_DERIVE without a key derivation function. The point stays the caller's.
OwnedMechanism ecdhMechanism(PBYTE pbPeerPubkey, DWORD cbPeerPubkey)
{
    return {CKM_ECDH1_DERIVE,
            CK_ECDH1_DERIVE_PARAMS{CKD_NULL, 0, nullptr, cbPeerPubkey, pbPeerPubkey}};
}

// Derives the secret as a session object with a readable value.
CK_RV deriveSecretKey(TokenSequence& token, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE& secretKey)
{
    constexpr CK_OBJECT_CLASS objectClass = CKO_SECRET_KEY;
    constexpr CK_KEY_TYPE keyType = CKK_GENERIC_SECRET;
    constexpr CK_BBOOL yes = CK_TRUE;
    constexpr CK_BBOOL no = CK_FALSE;
    std::array secret = {attribute(CKA_TOKEN, &no, sizeof no),
                         attribute(CKA_CLASS, &objectClass, sizeof objectClass),
                         attribute(CKA_KEY_TYPE, &keyType, sizeof keyType),
                         attribute(CKA_SENSITIVE, &no, sizeof no),
                         attribute(CKA_EXTRACTABLE, &yes, sizeof yes),
                         attribute(CKA_ENCRYPT, &yes, sizeof yes),
                         attribute(CKA_DECRYPT, &yes, sizeof yes)};
    return token.p11().C_DeriveKey(token.session(), mechanism, token.key(), secret.data(),
                                   secret.size(), &secretKey);
}

// CKA_VALUE of the derived key, read in two calls. Null after a failure, which is logged.
OwnedSecret readSecret(TokenSequence& token, const Site& site, CK_OBJECT_HANDLE secretKey)
{
    CK_ATTRIBUTE value{CKA_VALUE, nullptr, 0};
    if (!token.check(askForAttribute(token.p11(), token.session(), secretKey, value),
                     "C_GetAttributeValue() failed while getting attributeValue length with "
                     "error-code:"))
        return nullptr;
    OwnedSecret secret = makeSecret(value.ulValueLen);
    value.pValue = secret->bytes;
    if (!token.check(askForAttribute(token.p11(), token.session(), secretKey, value),
                     "C_GetAttributeValue() failed with error-code:"))
        return nullptr;
    const uint32_t length = lengthWithin(secret->bytes, secret->length, value.ulValueLen);
    // Freeing the record wipes only its length.
    wipe(secret->bytes + length, secret->length - length);
    secret->length = length;
    NV_UNDER(DBG, site, "Agreed SharedSecret(%d bytes)=[%s], ", static_cast<int>(secret->length),
             secretText(secret->bytes, secret->length).data());
    return secret;
}

}  // namespace

SECURITY_STATUS P11ECKeyObject::secretAgreement(Pkcs11* p11, PBYTE pbPeerPubkey, DWORD cbPeerPubkey,
                                                NCRYPT_SECRET_HANDLE* phAgreedSecret,
                                                const SecretBytes& pin)
{
    constexpr Site here = NV_HERE;
    Trace trace(here);
    logArguments(trace, AgreementCall{p11, pbPeerPubkey, cbPeerPubkey, phAgreedSecret}, pin);
    OwnedSecret secret;
    TokenSequence token(*p11, slotId(), here);
    if (token.initialize() && token.openSession() && token.login(pin) &&
        token.findKey(3, CKO_PRIVATE_KEY, CKK_EC, tokenId())) {
        NV_TRC("4) Try to derive the secret key using peer's public key..");
        OwnedMechanism mechanism = ecdhMechanism(pbPeerPubkey, cbPeerPubkey);
        CK_OBJECT_HANDLE secretKey = 0;
        if (token.check(deriveSecretKey(token, mechanism.get(), secretKey),
                        "C_DeriveKey(): Failed with error-code:")) {
            NV_DBG("C_DeriveKey(): successful to get the agreed shared-secret handle, handle=[%p]",
                   asPointer(secretKey));
            secret = readSecret(token, here, secretKey);
        }
    }
    const SECURITY_STATUS status = token.finish({.logout = 5, .close = 6, .finalize = 7});
    // Only now: after a failed clean-up step the caller gets no secret.
    if (status == ERROR_SUCCESS)
        *phAgreedSecret = reinterpret_cast<NCRYPT_SECRET_HANDLE>(secret.release());
    return trace.leaving(status);
}

}  // namespace NV
