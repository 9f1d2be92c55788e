// Discovery of the token's certificates, and their publication in the user's "My" store.

#pragma once

#include "base/cng.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "base/encoding.h"
#include "logger/trace.h"
#include "p11/cryptoki.h"
#include "p11/module.h"
#include "p11/p11.h"
#include "p11/p11object.h"

namespace NV {

// A certificate found on the token.
class P11CertObject : public P11Object {
public:
    using ByHandle = std::map<CK_OBJECT_HANDLE, std::unique_ptr<P11CertObject>>;

    // The X.509 certificates that an open session of the slot finds, at most 1024. Empty when the
    // search fails. The fields of an attribute that cannot be read are empty.
    static ByHandle FindCertificates(Pkcs11& p11, const P11Slot& slot, CK_SESSION_HANDLE session);

    // The public key of a certificate, which is given as base64 of its DER: the contents of the
    // subjectPublicKey bit string as base64, the algorithm's OID, the length in bits. Empty texts
    // and 0 for anything that is not a certificate.
    static std::string extractPublicKey(const std::string& certificate);
    static std::wstring extractAlgoOid(const std::string& certificate);
    static uint32_t extractKeyLength(const std::string& certificate);
    // The name of the subject, as the system shows it. As it is in the certificate, any characters
    // included.
    static std::wstring extractSubject(const std::string& certificate);

    // The OID of a named curve in the parameters of the public key; empty for any other parameters.
    static std::string extractCurveOid(const std::string& certificate);
    // Whether the basic constraints say that it is the certificate of an authority.
    static bool isAuthority(const std::string& certificate);

    // Removes the certificates that are no keys: those without a name, and those of an authority unless
    // the token has a public key object of that name and no other certificate has it. Reads the subjects
    // of the others, for the dialogs of their keys. Replaces the session if the token has not ended a
    // search in it; 0 if it gives no other.
    static void keepKeys(Pkcs11& p11, const P11Slot& slot, CK_SESSION_HANDLE& session,
                         ByHandle& certificates);

    // Adds the certificate to the user's "My" store, or replaces an equal one, with key provider
    // information that names the provider and the container. True even when that information could
    // not be attached, which is logged.
    static bool AddToLocalStore(const std::wstring& pwszProvName,
                                const std::wstring& pwszContainerName, const std::string& base64);

    CK_SLOT_ID slotId() const { return slotId_; }
    // Upper-case hexadecimal of CKA_ID; empty without one.
    const std::wstring& keyName() const { return keyName_; }
    const std::wstring& algorithmOid() const { return algorithmOid_; }
    const std::string& certificate() const { return certificate_; }
    const std::string& publicKey() const { return publicKey_; }
    uint32_t keyLength() const { return keyLength_; }
    // Of a named curve; only modern reads it.
    const std::string& curveOid() const { return curveOid_; }
    // extractSubject of the certificate. Empty before keepKeys.
    const std::wstring& subject() const { return subject_; }

private:
    // More bytes than these, of all certificates and key names together, are unavailable.
    static constexpr size_t maxSize = size_t{32} * 1024 * 1024;

    // A search under way. Its lines appear under the name of the site.
    struct Search {
        const Site& site;
        Pkcs11& p11;
        CK_SESSION_HANDLE session = 0;
        size_t room = maxSize;
    };

    template <typename Found>
    static std::optional<Bytes> readAttribute(Search& search, CK_OBJECT_HANDLE object,
                                              CK_ATTRIBUTE_TYPE type, const Found& found);
    void readCertificate(Search& search, CK_SLOT_ID slotId, CK_OBJECT_HANDLE object);
    void readKeyName(Search& search, CK_OBJECT_HANDLE object);
    void readCurve(const Site& find);

    CK_SLOT_ID slotId_ = 0;
    std::wstring keyName_;
    std::wstring algorithmOid_;
    std::string certificate_;
    std::string publicKey_;
    uint32_t keyLength_ = 0;
    std::string curveOid_;
    std::wstring subject_;
};

// The certificates of one provider's token, by key name. It has no lock: the provider fills it
// during initialization.
class CertStore {
public:
    using ByKeyName = std::map<std::wstring, std::unique_ptr<P11CertObject>>;

    CertStore() = default;
    virtual ~CertStore() = default;
    CertStore(const CertStore&) = delete;
    CertStore& operator=(const CertStore&) = delete;

    // Finds the slot's certificates, files the first of each key name, and publishes all of them; in
    // modern only those that are keys. Forgets those of an earlier call. False without a slot or a
    // session, or if the library is lost (Pkcs11::lost): nothing is published then. Later failures are
    // ignored. The library must be initialized.
    bool loadCertificates(Pkcs11& p11, const P11Slot* slot, const std::wstring& providerName);

    const ByKeyName& certificates() const { return certificates_; }

private:
    ByKeyName certificates_;
};

}  // namespace NV
