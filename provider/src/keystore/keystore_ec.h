// Elliptic-curve key pairs on the token.

#pragma once

#include "keystore/keystore_key.h"

namespace NV {

class P11ECKeyObject : public P11KeyObject {
public:
    // The coordinates of a public point, big-endian, with the size of the curve's field. Empty for
    // a malformed point.
    struct ECPoint {
        Bytes x;
        Bytes y;

        // x followed by y.
        Bytes toBlob() const;
    };

    P11ECKeyObject();
    P11ECKeyObject(const P11ECKeyObject& source);
    P11ECKeyObject& operator=(const P11ECKeyObject&) = delete;
    ~P11ECKeyObject() override = default;

    // A BCRYPT_ECCKEY_BLOB with the ECDSA magic. Empty without a curve. Only the header for a malformed
    // point.
    Bytes getPubkeyBlob() const override;
    // CKM_ECDSA for all arguments.
    OwnedMechanism mechanismSignature(VOID* pPaddingInfo, DWORD dwFlags) const override;
    OwnedMechanism mechanismEncryption(VOID* pPaddingInfo, DWORD dwFlags) const override;

    // Every hash and padding is accepted for a signature. Nothing is encrypted.
    SECURITY_STATUS checkSignature(const Site& operation, const SignatureCall& call) const override;
    SECURITY_STATUS checkCipher(const Site& operation, const CipherCall& call) const override;

    // The signature is r followed by s, the format of both PKCS#11 and CNG.
    SECURITY_STATUS sign(Pkcs11* p11, VOID* pPaddingInfo, PBYTE pbHashValue, DWORD cbHashValue,
                         PBYTE pbSignature, DWORD cbSignature, DWORD* pcbResult, DWORD dwFlags,
                         const SecretBytes& pin) override;
    SECURITY_STATUS verify(Pkcs11* p11, VOID* pPaddingInfo, PBYTE pbHashValue, DWORD cbHashValue,
                           PBYTE pbSignature, DWORD cbSignature, DWORD dwFlags) override;
    // Both return NTE_NOT_SUPPORTED.
    SECURITY_STATUS encrypt(Pkcs11* p11, VOID* pPaddingInfo, PBYTE pbInput, DWORD cbInput,
                            PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult,
                            DWORD dwFlags) override;
    SECURITY_STATUS decrypt(Pkcs11* p11, VOID* pPaddingInfo, PBYTE pbInput, DWORD cbInput,
                            PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags,
                            const SecretBytes& pin) override;
    SECURITY_STATUS secretAgreement(Pkcs11* p11, PBYTE pbPeerPubkey, DWORD cbPeerPubkey,
                                    NCRYPT_SECRET_HANDLE* phAgreedSecret,
                                    const SecretBytes& pin) override;

    // Twice the coordinate size: by the key length, or by the public point if that is not known.
    DWORD signatureLength() const override;

    // Splits an uncompressed point (SEC 1, 2.3.3). The result is empty unless the bytes begin with 04
    // and contain both coordinates, and the key has a curve.
    ECPoint getPointFromPublicKey(const Bytes& publicKeyBytes) const;
};

}  // namespace NV
