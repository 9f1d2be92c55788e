// The key object: what the provider knows about a key pair on the token, its CNG properties, and
// the operations of each key type. The key store makes, clones and deletes key objects.

#pragma once

#include "base/cng.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "base/curve.h"
#include "base/encoding.h"
#include "base/secret.h"
#include "keystore/keystore_mechanism.h"
#include "keystore/property.h"
#include "logger/trace.h"
#include "p11/cryptoki.h"
#include "p11/p11.h"
#include "p11/p11object.h"

namespace NV {

struct CipherCall;
struct SignatureCall;

// Has no token state between operations: each one runs its own session. It has no lock: the key store
// guards construction and deletion, the provider guards the use.
//
// Token operations return ERROR_SUCCESS, or NTE_INTERNAL_ERROR for anything that fails on the token.
// All lengths are in bytes. A padding is the BCRYPT_*_PADDING_INFO record that the BCRYPT_PAD_* bit in
// dwFlags needs, or null.
class P11KeyObject : public P11Object {
public:
    using Properties = std::map<std::wstring, std::shared_ptr<Property>>;

    P11KeyObject();
    // Shares the property values with the source in classic; see Property. Until setEmptiesValues is
    // called, the copy's destructor does not empty them.
    P11KeyObject(const P11KeyObject& source);
    P11KeyObject& operator=(const P11KeyObject&) = delete;
    ~P11KeyObject() override;

    // Whether the destructor empties the values of the properties. For the key store: true for a copy
    // that an application gets.
    void setEmptiesValues(bool empties) { emptiesValues_ = empties; }

    // CNG's public key blob for the type of the key. Empty when the public key is malformed.
    virtual Bytes getPubkeyBlob() const = 0;
    // The mechanism of a padding. What the padding information points at stays the caller's.
    virtual OwnedMechanism mechanismSignature(VOID* pPaddingInfo, DWORD dwFlags) const = 0;
    virtual OwnedMechanism mechanismEncryption(VOID* pPaddingInfo, DWORD dwFlags) const = 0;

    // Whether the key has the operation and the padding, before anything is asked of the user and the
    // token: ERROR_SUCCESS, NTE_NOT_SUPPORTED, or NTE_INVALID_PARAMETER for a hash of a wrong length.
    // Not for classic. The padding information that the flags need must not be null.
    virtual SECURITY_STATUS checkSignature(const Site& operation,
                                           const SignatureCall& call) const = 0;
    virtual SECURITY_STATUS checkCipher(const Site& operation, const CipherCall& call) const = 0;

    // *pcbResult is the length that the token gave; written on success only.
    virtual SECURITY_STATUS sign(Pkcs11* p11, VOID* pPaddingInfo, PBYTE pbHashValue,
                                 DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                 DWORD* pcbResult, DWORD dwFlags, const SecretBytes& pin) = 0;
    // A signature that does not verify is a failure like any other.
    virtual SECURITY_STATUS verify(Pkcs11* p11, VOID* pPaddingInfo, PBYTE pbHashValue,
                                   DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                   DWORD dwFlags) = 0;
    // A null pbOutput asks for the length. *pcbResult is written on success only.
    virtual SECURITY_STATUS encrypt(Pkcs11* p11, VOID* pPaddingInfo, PBYTE pbInput, DWORD cbInput,
                                    PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult,
                                    DWORD dwFlags) = 0;
    virtual SECURITY_STATUS decrypt(Pkcs11* p11, VOID* pPaddingInfo, PBYTE pbInput, DWORD cbInput,
                                    PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags,
                                    const SecretBytes& pin) = 0;
    virtual SECURITY_STATUS secretAgreement(Pkcs11* p11, PBYTE pbPeerPubkey, DWORD cbPeerPubkey,
                                            NCRYPT_SECRET_HANDLE* phAgreedSecret,
                                            const SecretBytes& pin) = 0;

    // Length of a signature in bytes; 0 if it is not known.
    virtual DWORD signatureLength() const = 0;

    // What becomes of the value of a name that already exists.
    enum class IfPresent : uint8_t { keep, replace };

    // Adds a property of type 0 with a copy of the bytes. Null data or a size below 1 adds nothing.
    void addProperty(const std::wstring& name, const void* data, int32_t size,
                     IfPresent ifPresent = IfPresent::keep);
    // Null when no property has the name. The key owns it; in classic, destroying a copy of the key
    // empties the value.
    const Property* findProperty(const std::wstring& name) const;
    const Properties& properties() const { return properties_; }

    CK_SLOT_ID slotId() const { return slotId_; }
    const std::wstring& keyId() const { return keyId_; }
    // CKA_ID of the key on the token: the key identifier's hexadecimal text decoded.
    Bytes tokenId() const;
    const std::string& algorithm() const { return algorithm_; }
    const std::string& publicKey() const { return publicKey_; }
    const std::wstring& algorithmOid() const { return algorithmOid_; }
    uint32_t keyLength() const { return keyLength_; }
    // The curve, if it is one that CNG has blobs for; null for any other and for RSA.
    const Curve* curve() const;
    // The window that owns the dialogs of this handle; null if the application has set none.
    HWND ownerWindow() const { return ownerWindow_; }
    uint32_t stamp() const { return stamp_; }

    void setSlotId(CK_SLOT_ID slotId) { slotId_ = slotId; }
    // The upper-case hexadecimal text of CKA_ID.
    void setKeyId(std::wstring keyId) { keyId_ = std::move(keyId); }
    // Base64 of the certificate's subjectPublicKey contents.
    void setPublicKey(std::string publicKey) { publicKey_ = std::move(publicKey); }
    void setAlgorithmOid(std::wstring oid) { algorithmOid_ = std::move(oid); }
    // In bits.
    void setKeyLength(uint32_t keyLength) { keyLength_ = keyLength; }
    // Of a named curve; empty for parameters without a name.
    void setCurveOid(std::string oid) { curveOid_ = std::move(oid); }
    void setOwnerWindow(HWND window) { ownerWindow_ = window; }

protected:
    void setAlgorithm(std::string algorithm) { algorithm_ = std::move(algorithm); }

private:
    struct WithoutProperties {};
    P11KeyObject(const P11KeyObject& source, WithoutProperties);

    uint32_t stamp_;
    CK_SLOT_ID slotId_ = 0;
    std::wstring keyId_;
    std::string algorithm_;
    std::string publicKey_;
    std::wstring algorithmOid_;
    uint32_t keyLength_ = 0;
    std::string curveOid_;
    Properties properties_;
    std::atomic<HWND> ownerWindow_ = nullptr;  // of this handle alone: a copy has none
    bool emptiesValues_ = true;
};

}  // namespace NV
