// RSA: the public key blob, paddings as mechanisms, and the four token operations.

#include "keystore/keystore_rsa.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <utility>

#include "base/text.h"
#include "config/mode.h"
#include "keystore/keystore_hash.h"
#include "keystore/keystore_padding.h"
#include "keystore/keystore_public.h"
#include "keystore/keystore_sign.h"

namespace NV {

namespace {

static_assert(sizeof(LegacyRsaHead) == sizeof(BLOBHEADER) + sizeof(RSAPUBKEY));
static_assert(sizeof(RsaBlobHead) == sizeof(BCRYPT_RSAKEY_BLOB));

// The blob of a type that crypt32 makes of an RSAPublicKey. Empty when crypt32 fails.
Bytes decodePublicKey(LPCSTR type, const Bytes& der)
{
    DWORD size = 0;
    const auto length = static_cast<DWORD>(der.size());
    if (!CryptDecodeObject(X509_ASN_ENCODING, type, der.data(), length, 0, nullptr, &size))
        return {};
    Bytes blob(size);
    if (!CryptDecodeObject(X509_ASN_ENCODING, type, der.data(), length, 0, blob.data(), &size))
        return {};
    blob.resize(size);
    return blob;
}

// Both blobs log the modulus' length in bytes, the exponent and the magic.
void logNumbers(const Site& site, uint32_t modulusSize, uint32_t exponent, uint32_t magic)
{
    NV_UNDER(TRC, site, "dwModulusSize = %d", static_cast<int>(modulusSize));
    NV_UNDER(TRC, site, "dwExponent = %d", static_cast<int>(exponent));
    NV_UNDER(TRC, site, "dwMagic = %x", static_cast<unsigned>(magic));
}

// The blob in classic.
Bytes blobWithUsualExponent(const Site& site, const Bytes& der)
{
    const Bytes legacy = decodePublicKey(RSA_CSP_PUBLICKEYBLOB, der);
    const std::optional<LegacyRsaHead> head = readLegacyRsaHead(legacy);
    if (!head)
        return {};
    logNumbers(site, head->modulusSize(), head->exponent, head->magic);
    return rsaPublicKeyBlob(*head, legacy);
}

// The blob in modern.
Bytes blobWithOwnExponent(const Site& site, const std::optional<RsaNumbers>& numbers)
{
    if (!numbers)
        return {};
    uint32_t exponent = 0;  // the line has room for 32 bits
    for (const unsigned char byte : numbers->exponent)
        exponent = exponent << 8 | byte;
    logNumbers(site, static_cast<uint32_t>(numbers->modulus.size()), exponent,
               BCRYPT_RSAPUBLIC_MAGIC);
    return rsaBlob(*numbers);
}

// How encryption and decryption differ after the key is found.
struct CipherWork {
    CK_RV (Pkcs11::*init)(CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE);
    const char* initFailure;
    const char* initSuccess;
    CK_RV (Pkcs11::*run)(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR);
    const char* runFailure;
};

constexpr CipherWork encryption = {
    &Pkcs11::C_EncryptInit, "Failed to initialize encrypt, C_EncryptInit() returned ",
    "Success to initiate encrypt, C_EncryptInit() returned CKR_OK", &Pkcs11::C_Encrypt,
    "Failed to encrypt data, C_Encrypt() returned "};

constexpr CipherWork decryption = {
    &Pkcs11::C_DecryptInit, "Failed to initialize decrypt, C_DecryptInit() returned ",
    "Success to initiate decrypt, C_DecryptInit() returned CKR_OK", &Pkcs11::C_Decrypt,
    "Failed to decrypt data, C_Decrypt() returned "};

// Sets `length` to the length that the token reported, limited to the buffer. False after a failure,
// which is logged.
bool runCipher(TokenSequence& token, const Site& operation, const CipherCall& call,
               const CipherWork& work, OwnedMechanism mechanism, CK_ULONG& length)
{
    CK_RV rv = (call.p11->*work.init)(token.session(), mechanism.get(), token.key());
    if (!token.check(rv, work.initFailure))
        return false;
    NV_UNDER(TRC, operation, "%s", work.initSuccess);
    length = call.cbOutput;
    rv = (call.p11->*work.run)(token.session(), call.pbInput, call.cbInput, call.pbOutput, &length);
    if (!token.check(rv, work.runFailure))
        return false;
    length = lengthWithin(call.pbOutput, call.cbOutput, length);
    return true;
}

// Everything but PSS is signed as raw PKCS #1 v1.5, and the DigestInfo is put before the hash here.
SignInput signInput(const P11KeyObject& key, const SignatureCall& call)
{
    SignInput input{key.mechanismSignature(call.pPaddingInfo, call.dwFlags), {}};
    const auto* hash =
        std::ranges::find(hashAlgorithms, input.mechanism.type(), &HashAlgorithm::rsaPkcs);
    if (hash != std::end(hashAlgorithms))
        input = {OwnedMechanism(CKM_RSA_PKCS), hexDecode(hash->digestInfo)};
    input.data.insert(input.data.end(), call.pbHashValue, call.pbHashValue + call.cbHashValue);
    return input;
}

// The same for a call that checkSignature has accepted.
SignInput checkedInput(const P11KeyObject& key, const SignatureCall& call)
{
    OwnedMechanism mechanism = key.mechanismSignature(call.pPaddingInfo, call.dwFlags);
    if (mechanism.type() == CKM_RSA_PKCS_PSS)
        return {std::move(mechanism), {call.pbHashValue, call.pbHashValue + call.cbHashValue}};
    return {OwnedMechanism(CKM_RSA_PKCS), digestInfoAndHash(call)};
}

}  // namespace

P11RSAKeyObject::P11RSAKeyObject()
{
    const Trace trace(NV_HERE);
    setAlgorithm("RSA");
    trace.leave();
}

P11RSAKeyObject::P11RSAKeyObject(const P11RSAKeyObject& source) : P11KeyObject(source)
{
    const Trace trace(NV_HERE);
    setAlgorithm("RSA");
    trace.leave();
}

std::optional<RsaNumbers> P11RSAKeyObject::numbers() const
{
    return readRsaBlob(decodePublicKey(CNG_RSA_PUBLIC_KEY_BLOB, base64Decode(publicKey())));
}

Bytes P11RSAKeyObject::getPubkeyBlob() const
{
    constexpr Site here = NV_HERE;
    const Trace trace(here);
    const Bytes der = base64Decode(publicKey());
    NV_TRC("RSA PublicKey = %s (%d bytes)", hexEncode(der).c_str(), static_cast<int>(der.size()));
    Bytes blob = mode().exportsOwnExponent() ? blobWithOwnExponent(here, numbers())
                                             : blobWithUsualExponent(here, der);
    if (!blob.empty())
        NV_TRC("RSA PublicKey Blob = %s", hexEncode(blob).c_str());
    return trace.leaving(std::move(blob));
}

OwnedMechanism P11RSAKeyObject::mechanismSignature(VOID* pPaddingInfo, DWORD dwFlags) const
{
    Trace trace(NV_HERE);
    logPadding(trace, pPaddingInfo, dwFlags);
    OwnedMechanism mechanism(CKM_RSA_PKCS);
    if ((dwFlags & BCRYPT_PAD_PKCS1) != 0) {
        NV_DBG("BCRYPT_PAD_PKCS1 is enabled");
        if (const auto* info = static_cast<const BCRYPT_PKCS1_PADDING_INFO*>(pPaddingInfo)) {
            NV_DBG("pkcs1PaddingInfo->pszAlgId=%s", printable(info->pszAlgId).c_str());
            if (const HashAlgorithm* hash = findHashAlgorithm(info->pszAlgId))
                mechanism = OwnedMechanism(hash->rsaPkcs);
        } else {
            NV_DBG("There is no padding info for BCRYPT_PAD_PKCS1");
        }
    }
    if ((dwFlags & BCRYPT_PAD_PSS) != 0) {
        NV_DBG("BCRYPT_PAD_PSS is enabled");
        if (const auto* info = static_cast<const BCRYPT_PSS_PADDING_INFO*>(pPaddingInfo)) {
            NV_DBG("pssPaddingInfo->pszAlgId=%s", printable(info->pszAlgId).c_str());
            NV_DBG("pssPaddingInfo->cbSalt=%d", static_cast<int>(info->cbSalt));
            if (const HashAlgorithm* hash = findHashAlgorithm(info->pszAlgId))
                mechanism =
                    OwnedMechanism(CKM_RSA_PKCS_PSS,
                                   CK_RSA_PKCS_PSS_PARAMS{hash->digest, hash->mgf, info->cbSalt});
        } else {
            NV_DBG("There is no padding info for BCRYPT_PAD_PSS");
        }
    }
    return trace.leaving(std::move(mechanism));
}

OwnedMechanism P11RSAKeyObject::mechanismEncryption(VOID* pPaddingInfo, DWORD dwFlags) const
{
    Trace trace(NV_HERE);
    logPadding(trace, pPaddingInfo, dwFlags);
    OwnedMechanism mechanism(0);
    if ((dwFlags & BCRYPT_PAD_NONE) != 0) {
        NV_DBG("BCRYPT_PAD_NONE is enabled");
        mechanism = OwnedMechanism(CKM_RSA_X_509);
    }
    if ((dwFlags & BCRYPT_PAD_PKCS1) != 0) {
        NV_DBG("BCRYPT_PAD_PKCS1 is enabled");
        mechanism = OwnedMechanism(CKM_RSA_PKCS);
        if (const auto* info = static_cast<const BCRYPT_PKCS1_PADDING_INFO*>(pPaddingInfo))
            NV_DBG("pkcs1PaddingInfo->pszAlgId=%s", printable(info->pszAlgId).c_str());
        else
            NV_WRN("There is no padding info for BCRYPT_PAD_PKCS1");
    }
    if ((dwFlags & BCRYPT_PAD_OAEP) != 0) {
        NV_DBG("BCRYPT_PAD_OAEP is enabled");
        if (const auto* info = static_cast<const BCRYPT_OAEP_PADDING_INFO*>(pPaddingInfo)) {
            NV_DBG("oaepPaddingInfo->pszAlgId=%s", printable(info->pszAlgId).c_str());
            NV_DBG("oaepPaddingInfo->pbLabel=%p", static_cast<const void*>(info->pbLabel));
            NV_DBG("oaepPaddingInfo->cbLabel=%d", static_cast<int>(info->cbLabel));
            if (const HashAlgorithm* hash = findHashAlgorithm(info->pszAlgId))
                mechanism = OwnedMechanism(CKM_RSA_PKCS_OAEP,
                                           CK_RSA_PKCS_OAEP_PARAMS{hash->digest, hash->mgf,
                                                                   CKZ_DATA_SPECIFIED,
                                                                   info->pbLabel, info->cbLabel});
        } else {
            NV_DBG("There is no padding info for BCRYPT_PAD_OAEP");
        }
    }
    return trace.leaving(std::move(mechanism));
}

SECURITY_STATUS P11RSAKeyObject::checkSignature(const Site& operation,
                                                const SignatureCall& call) const
{
    return checkRsaSignature(operation, call);
}

SECURITY_STATUS P11RSAKeyObject::checkCipher(const Site& operation, const CipherCall& call) const
{
    return checkRsaCipher(operation, call);
}

SECURITY_STATUS P11RSAKeyObject::sign(Pkcs11* p11, VOID* pPaddingInfo, PBYTE pbHashValue,
                                      DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                      DWORD* pcbResult, DWORD dwFlags, const SecretBytes& pin)
{
    const SignatureCall call{p11,         pPaddingInfo, pbHashValue, cbHashValue,
                             pbSignature, cbSignature,  dwFlags};
    return signOnToken(NV_HERE, *this, CKK_RSA, call, pin, {.logout = 5, .close = 6, .finalize = 7},
                       mode().checksHashNames() ? checkedInput : signInput, pcbResult);
}

SECURITY_STATUS P11RSAKeyObject::verify(Pkcs11* p11, VOID* pPaddingInfo, PBYTE pbHashValue,
                                        DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                        DWORD dwFlags)
{
    const SignatureCall call{p11,         pPaddingInfo, pbHashValue, cbHashValue,
                             pbSignature, cbSignature,  dwFlags};
    // Compat: classic gives the token the bare hash, with a mechanism that expects the message.
    return verifyOnToken(NV_HERE, *this, CKK_RSA, call,
                         mode().verifiesAsItSigns() ? checkedInput : hashAsItIs);
}

SECURITY_STATUS P11RSAKeyObject::encrypt(Pkcs11* p11, VOID* pPaddingInfo, PBYTE pbInput,
                                         DWORD cbInput, PBYTE pbOutput, DWORD cbOutput,
                                         DWORD* pcbResult, DWORD dwFlags)
{
    constexpr Site here = NV_HERE;
    Trace trace(here);
    const CipherCall call{p11,      pPaddingInfo, pbInput,   cbInput,
                          pbOutput, cbOutput,     pcbResult, dwFlags};
    logArguments(trace, call, nullptr);
    CK_ULONG length = 0;
    TokenSequence token(*p11, slotId(), here);
    if (token.initialize() && token.openSession() &&
        token.findKey(2, CKO_PUBLIC_KEY, CKK_RSA, tokenId())) {
        NV_TRC("3) Try to encrypt the input data using the public key");
        if (runCipher(token, here, call, encryption, mechanismEncryption(pPaddingInfo, dwFlags),
                      length))
            NV_TRC("Success to encrypt data(%ld bytes), C_Encrypt() returned CKR_OK",
                   static_cast<long>(length));
    }
    const SECURITY_STATUS status = token.finish({.logout = 0, .close = 4, .finalize = 5});
    if (needsCertificateKey(token.failure()))
        return trace.leaving(encryptWithoutToken(here, *this, call).value_or(status));
    if (status == ERROR_SUCCESS)
        *pcbResult = length;
    return trace.leaving(status);
}

SECURITY_STATUS P11RSAKeyObject::decrypt(Pkcs11* p11, VOID* pPaddingInfo, PBYTE pbInput,
                                         DWORD cbInput, PBYTE pbOutput, DWORD cbOutput,
                                         DWORD* pcbResult, DWORD dwFlags, const SecretBytes& pin)
{
    constexpr Site here = NV_HERE;
    Trace trace(here);
    const CipherCall call{p11,      pPaddingInfo, pbInput,   cbInput,
                          pbOutput, cbOutput,     pcbResult, dwFlags};
    logArguments(trace, call, &pin);
    CK_ULONG length = 0;
    TokenSequence token(*p11, slotId(), here);
    if (token.initialize() && token.openSession() && token.login(pin) &&
        token.findKey(3, CKO_PRIVATE_KEY, CKK_RSA, tokenId())) {
        NV_TRC("4) Try to decrypt the input data using the private key");
        if (runCipher(token, here, call, decryption, mechanismEncryption(pPaddingInfo, dwFlags),
                      length))
            NV_TRC("Success to decrypt data(%ld bytes), C_Decrypt() returned CKR_OK",
                   static_cast<long>(length));
    }
    const SECURITY_STATUS status = token.finish({.logout = 5, .close = 6, .finalize = 7});
    if (status == ERROR_SUCCESS)
        *pcbResult = length;
    return trace.leaving(status);
}

SECURITY_STATUS P11RSAKeyObject::secretAgreement(Pkcs11* p11, PBYTE pbPeerPubkey,
                                                 DWORD cbPeerPubkey,
                                                 NCRYPT_SECRET_HANDLE* phAgreedSecret,
                                                 const SecretBytes& pin)
{
    Trace trace(NV_HERE);
    logArguments(trace, AgreementCall{p11, pbPeerPubkey, cbPeerPubkey, phAgreedSecret}, pin);
    NV_WRN("RSA_secretAgreement NOT supported yet!!");
    return trace.leaving(NTE_NOT_SUPPORTED);
}

}  // namespace NV
