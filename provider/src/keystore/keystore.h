// The register of a provider's key objects: filing them, handing out clones by name, taking them
// back by handle.

#pragma once

#include "base/cng.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "base/secret.h"
#include "keystore/keystore_hash.h"
#include "keystore/keystore_key.h"
#include "p11/module.h"

namespace NV {

// Owns every key object that it files or hands out. A key handle is the address of a clone; clones
// that an application never frees die with the store. Every operation takes the store's lock,
// before anything is logged; the destructor does not, the store must not be in use then.
class KeyStore {
public:
    KeyStore() = default;
    virtual ~KeyStore();
    KeyStore(const KeyStore&) = delete;
    KeyStore& operator=(const KeyStore&) = delete;

    // Files a key object with its seven CNG properties under `id`, the key name. `base64` is the
    // certificate's public key, `length` its length in bits. False when the OID is neither RSA's
    // nor that of elliptic curves. A name that is filed already keeps its first key.
    bool addPublicKey(const P11Slot& slot, const std::wstring& id, const std::wstring& oid,
                      const std::string& base64, uint32_t length);

    // Files the public key of a BCRYPT_ECCKEY_BLOB with an ECDH magic as an imported key and gives
    // its handle. 0 for any other magic and for a blob shorter than its header says; nothing past
    // cbData is read.
    NCRYPT_KEY_HANDLE addEphemeralKey(const BYTE* pbData, DWORD cbData);

    // What a key is derived from, and where to.
    struct Derivation {
        Pkcs11* p11;
        CK_SLOT_ID slotId;                    // of the session; no login is made
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

    // Digests prepend || secret || append on the token, or signs it with the HMAC key. The result
    // is the whole digest: ERROR_SUCCESS, or NTE_INTERNAL_ERROR for whatever fails on the token, an
    // output that is too small among it. *pcbResult is written once the token has derived, also
    // when closing then fails.
    SECURITY_STATUS derive(const Derivation& derivation);

    // A new clone's handle, 0 when no key of the name is filed.
    NCRYPT_KEY_HANDLE open(const std::wstring& name);

    // Deletes a clone or an imported key. False when the handle is neither.
    bool close(NCRYPT_KEY_HANDLE handle);

    // The clone behind a handle, null for any other handle.
    P11KeyObject* findOpened(NCRYPT_KEY_HANDLE handle);
    // The clone or the imported public key behind a handle, null for any other handle.
    P11KeyObject* findOpenedOrImported(NCRYPT_KEY_HANDLE handle);

    // The filed key at a position in name order. Null past the end, and where open has left an
    // entry without a key.
    P11KeyObject* keyAt(size_t position);
    // The number of entries, those without a key included.
    size_t keyCount();

private:
    using ByHandle = std::map<NCRYPT_KEY_HANDLE, std::unique_ptr<P11KeyObject>>;

    template <typename Key>
    NCRYPT_KEY_HANDLE fileClone(const P11KeyObject& source) NV_REQUIRES(lock_);

    // The destructor empties the maps in an order of its own: opened, ephemeral, managed.
    Mutex lock_{LockRank::keyStore};
    std::map<std::wstring, std::unique_ptr<P11KeyObject>> managedKeys_ NV_GUARDED_BY(lock_);
    // What keyAt has made of managedKeys_, so that a position need not be counted out each time.
    std::vector<P11KeyObject*> keysInOrder_ NV_GUARDED_BY(lock_);
    ByHandle openedKeys_ NV_GUARDED_BY(lock_);
    ByHandle ephemeralKeys_ NV_GUARDED_BY(lock_);
};

}  // namespace NV
