// RSA key pairs on the token.

#pragma once

#include "keystore/keystore_key.h"

namespace NV {

class P11RSAKeyObject : public P11KeyObject {
public:
    P11RSAKeyObject();
    P11RSAKeyObject(const P11RSAKeyObject& source);
    P11RSAKeyObject& operator=(const P11RSAKeyObject&) = delete;
    ~P11RSAKeyObject() override = default;

    // A BCRYPT_RSAKEY_BLOB with exponent bytes 01 00 01 whatever the key's exponent is, and the
    // modulus, most significant byte first. Empty when the public key cannot be decoded.
    Bytes getPubkeyBlob() const override;
    // BCRYPT_PAD_PKCS1 and BCRYPT_PAD_PSS, the latter wins; anything unknown is CKM_RSA_PKCS.
    CK_MECHANISM mechanismSignature(VOID* pPaddingInfo, DWORD dwFlags) const override;
    // BCRYPT_PAD_NONE, BCRYPT_PAD_PKCS1 and BCRYPT_PAD_OAEP, the last one set wins.
    CK_MECHANISM mechanismEncryption(VOID* pPaddingInfo, DWORD dwFlags) const override;

    SECURITY_STATUS sign(Pkcs11* p11, VOID* pPaddingInfo, PBYTE pbHashValue, DWORD cbHashValue,
                         PBYTE pbSignature, DWORD cbSignature, DWORD dwFlags,
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

private:
    SignInput signInput(const SignatureCall& call) const;

    // What tells encryption and decryption apart once the key is found.
    struct CipherWork {
        const char* verb;
        const char* initName;
        CK_RV (Pkcs11::*init)(CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE);
        const char* runName;
        CK_RV (Pkcs11::*run)(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR);
    };
    // The length that the token reported, bounded by the buffer; 0 after a failure.
    CK_ULONG runCipher(TokenSequence& token, const Site& site, const CipherCall& call,
                       const CipherWork& work) const;
};

}  // namespace NV
