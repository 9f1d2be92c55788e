// RSA key pairs on the token.

#pragma once

#include <optional>

#include "keystore/keystore_blob.h"
#include "keystore/keystore_key.h"

namespace NV {

class P11RSAKeyObject : public P11KeyObject {
public:
    P11RSAKeyObject();
    P11RSAKeyObject(const P11RSAKeyObject& source);
    P11RSAKeyObject& operator=(const P11RSAKeyObject&) = delete;
    ~P11RSAKeyObject() override = default;

    // A BCRYPT_RSAKEY_BLOB with the modulus, most significant byte first. Empty when the public key
    // cannot be decoded. Compat: the exponent is always 01 00 01, and only in modern the key's own.
    Bytes getPubkeyBlob() const override;
    // Modulus and exponent. Nothing when the public key cannot be decoded. Writes no log lines.
    std::optional<RsaNumbers> numbers() const;
    // For BCRYPT_PAD_PKCS1 and BCRYPT_PAD_PSS; with both, PSS is used. CKM_RSA_PKCS for anything
    // unknown.
    OwnedMechanism mechanismSignature(VOID* pPaddingInfo, DWORD dwFlags) const override;
    // For BCRYPT_PAD_NONE, BCRYPT_PAD_PKCS1 and BCRYPT_PAD_OAEP. With several, the last of these is
    // used; with none, the mechanism is 0.
    OwnedMechanism mechanismEncryption(VOID* pPaddingInfo, DWORD dwFlags) const override;

    SECURITY_STATUS checkSignature(const Site& operation, const SignatureCall& call) const override;
    SECURITY_STATUS checkCipher(const Site& operation, const CipherCall& call) const override;

    SECURITY_STATUS sign(Pkcs11* p11, VOID* pPaddingInfo, PBYTE pbHashValue, DWORD cbHashValue,
                         PBYTE pbSignature, DWORD cbSignature, DWORD* pcbResult, DWORD dwFlags,
                         const SecretBytes& pin) override;
    SECURITY_STATUS verify(Pkcs11* p11, VOID* pPaddingInfo, PBYTE pbHashValue, DWORD cbHashValue,
                           PBYTE pbSignature, DWORD cbSignature, DWORD dwFlags) override;
    SECURITY_STATUS encrypt(Pkcs11* p11, VOID* pPaddingInfo, PBYTE pbInput, DWORD cbInput,
                            PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult,
                            DWORD dwFlags) override;
    SECURITY_STATUS decrypt(Pkcs11* p11, VOID* pPaddingInfo, PBYTE pbInput, DWORD cbInput,
                            PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags,
                            const SecretBytes& pin) override;
    // NTE_NOT_SUPPORTED.
    SECURITY_STATUS secretAgreement(Pkcs11* p11, PBYTE pbPeerPubkey, DWORD cbPeerPubkey,
                                    NCRYPT_SECRET_HANDLE* phAgreedSecret,
                                    const SecretBytes& pin) override;

    // The modulus length.
    DWORD signatureLength() const override { return (keyLength() + 7) / 8; }
};

}  // namespace NV
