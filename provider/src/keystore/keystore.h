// The key objects of a provider: filed by name, cloned for each handle.

#pragma once

#include "base/cng.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/mutex.h"
#include "base/secret.h"
#include "keystore/keystore_hash.h"
#include "keystore/keystore_key.h"
#include "p11/module.h"

namespace NV {

// Owns every key object. A key handle is the address of a clone; the destructor deletes the clones
// that the application did not free. Every operation takes the store's lock before it logs anything.
// The destructor does not, so the store must not be in use then.
class KeyStore {
public:
    KeyStore() = default;
    virtual ~KeyStore();
    KeyStore(const KeyStore&) = delete;
    KeyStore& operator=(const KeyStore&) = delete;

    // What else the certificate of a key says; see P11CertObject. Only modern looks at it.
    struct KeyOrigin {
        std::string_view curveOid;     // of a named curve
        std::string_view certificate;  // base64
    };

    // Files a key object with its CNG properties under `id`, the key name. `base64` is the
    // certificate's public key, `length` its length in bits. False when the OID is neither rsaOid nor
    // ecOid. A name that already exists keeps its first key.
    bool addPublicKey(const P11Slot& slot, const std::wstring& id, const std::wstring& oid,
                      const std::string& base64, uint32_t length, const KeyOrigin& origin = {});

    // Files the public key of a BCRYPT_ECCKEY_BLOB with an ECDH magic as an imported key and returns
    // its handle. Returns 0 for any other magic and for a blob shorter than its header says. Reads
    // nothing past cbData bytes.
    NCRYPT_KEY_HANDLE addEphemeralKey(const BYTE* pbData, DWORD cbData);

    // In modern: the same for a BCRYPT_RSAKEY_BLOB (rsa) or a BCRYPT_ECCKEY_BLOB with an ECDH magic.
    // ERROR_SUCCESS and the handle; NTE_BAD_DATA for a damaged or short blob; NTE_NOT_SUPPORTED for
    // another kind of key or another curve. The handle is written on success only.
    SECURITY_STATUS importPublicKey(bool rsa, std::span<const BYTE> blob,
                                    NCRYPT_KEY_HANDLE& handle);

    // The input of a derivation, and the buffer of its result.
    struct Derivation {
        Pkcs11* p11;
        CK_SLOT_ID slotId;                    // of the session, which does not log in
        NCRYPT_SECRET_HANDLE phAgreedSecret;  // only logged
        const SecretBytes& secret;
        PBYTE pbDerivedKey;  // null asks for the length
        DWORD cbDerivedKey;
        DWORD* pcbResult;
        const HashAlgorithm& hashAlgo;
        bool useHmacKdf;
        const SecretBytes& hmacKey;
        const SecretBytes& kdfPrepend;
        const SecretBytes& kdfAppend;
    };

    // Digests prepend || secret || append on the token, or signs it with the HMAC key; the derived key
    // is the whole digest. Returns ERROR_SUCCESS, or NTE_INTERNAL_ERROR for anything that fails on the
    // token, including an output buffer that is too small. Sets *pcbResult when the token has derived
    // the key, even if a clean-up step fails afterwards. In modern, a smaller buffer takes the first
    // bytes of the digest.
    SECURITY_STATUS derive(const Derivation& derivation);

    // The handle of a new clone; 0 when no key has the name.
    NCRYPT_KEY_HANDLE open(const std::wstring& name);

    // Deletes a clone or an imported key. False when the handle is neither.
    bool close(NCRYPT_KEY_HANDLE handle);

    // Deletes a clone that the application never gets, as if it had not been made. Writes no line
    // about it.
    void discard(NCRYPT_KEY_HANDLE handle);

    // The clone behind a handle, null for any other handle. Its owner may be kept while it is used: a
    // close takes the handle away at once.
    P11KeyObject* findOpened(NCRYPT_KEY_HANDLE handle);
    std::shared_ptr<P11KeyObject> ownerOfOpened(NCRYPT_KEY_HANDLE handle);
    // The clone or the imported public key behind a handle, null for any other handle.
    P11KeyObject* findOpenedOrImported(NCRYPT_KEY_HANDLE handle);
    std::shared_ptr<P11KeyObject> ownerOf(NCRYPT_KEY_HANDLE handle);
    // The imported RSA key behind a handle, null for any other handle.
    std::shared_ptr<P11KeyObject> importedRSAKey(NCRYPT_KEY_HANDLE handle);

    // The filed key at a position in name order. Null past the end, and at an entry without a key,
    // which open leaves behind in classic.
    P11KeyObject* keyAt(size_t position);
    // The number of entries, including those without a key.
    size_t keyCount();

private:
    using ByHandle = std::map<NCRYPT_KEY_HANDLE, std::shared_ptr<P11KeyObject>>;

    struct ManagedKey {
        std::wstring name;
        std::unique_ptr<P11KeyObject> key;
    };

    // Where the name is in managedKeys_, or would be.
    std::vector<ManagedKey>::iterator placeOf(const std::wstring& name) NV_REQUIRES(lock_);
    bool isFiledAt(std::vector<ManagedKey>::iterator place, const std::wstring& name) const
        NV_REQUIRES(lock_);

    // Gives an imported key its properties and its handle.
    NCRYPT_KEY_HANDLE fileImported(std::unique_ptr<P11KeyObject> key);
    // The filed key of a name, in modern and in classic; null when there is none.
    const P11KeyObject* findFiled(const std::wstring& name) NV_REQUIRES(lock_);
    const P11KeyObject* findOrInsert(const std::wstring& name) NV_REQUIRES(lock_);

    template <typename Key>
    NCRYPT_KEY_HANDLE fileClone(const Site& open, const P11KeyObject& source, const char* success)
        NV_REQUIRES(lock_);

    Mutex lock_{LockRank::keyStore};
    std::vector<ManagedKey> managedKeys_ NV_GUARDED_BY(lock_);  // in name order, without duplicates
    ByHandle openedKeys_ NV_GUARDED_BY(lock_);
    ByHandle ephemeralKeys_ NV_GUARDED_BY(lock_);
};

}  // namespace NV
