// Imported public keys in modern: what is accepted, and who finds them. keystore.cpp has how classic
// imports.

#include "keystore/keystore.h"

#include <mutex>
#include <utility>

#include "base/curve.h"
#include "keystore/imported_blob.h"
#include "keystore/keystore_blob.h"
#include "keystore/keystore_ec.h"
#include "keystore/keystore_rsa.h"

namespace NV {

namespace {

SECURITY_STATUS refusalOf(const Site& site, BlobVerdict verdict)
{
    if (verdict == BlobVerdict::foreign) {
        NV_UNDER(ERR, site, "The BLOB is of another kind of key or of another curve");
        return NTE_NOT_SUPPORTED;
    }
    NV_UNDER(ERR, site, "The BLOB is damaged or short");
    return NTE_BAD_DATA;
}

std::unique_ptr<P11KeyObject> makeEcKey(const ImportedEccKey& imported)
{
    auto key = std::make_unique<P11ECKeyObject>();
    key->setPublicKey(base64Encode(uncompressedPoint(imported.coordinates)));
    key->setAlgorithmOid(std::wstring(ecOid));
    key->setKeyLength(imported.curve->keyLength);
    key->setCurveOid(std::string(imported.curve->oid));
    return key;
}

std::unique_ptr<P11KeyObject> makeRsaKey(const ImportedRsaKey& imported)
{
    auto key = std::make_unique<P11RSAKeyObject>();
    key->setPublicKey(base64Encode(encodeRsaPublicKey(imported.numbers)));
    key->setAlgorithmOid(std::wstring(rsaOid));
    key->setKeyLength(imported.numbers.bits());
    return key;
}

// Null for a blob that is not accepted, with the status.
template <typename Imported>
std::unique_ptr<P11KeyObject> made(const Site& site, const Imported& imported,
                                   std::unique_ptr<P11KeyObject> (*make)(const Imported&),
                                   SECURITY_STATUS& status)
{
    if (imported.verdict == BlobVerdict::accepted)
        return make(imported);
    status = refusalOf(site, imported.verdict);
    return nullptr;
}

}  // namespace

SECURITY_STATUS KeyStore::importPublicKey(bool rsa, std::span<const BYTE> blob,
                                          NCRYPT_KEY_HANDLE& handle)
{
    constexpr Site here = NV_HERE;
    Trace trace(here);
    trace.arguments(pointer("pbData", blob.data()), number("cbData", blob.size()));
    SECURITY_STATUS status = ERROR_SUCCESS;
    std::unique_ptr<P11KeyObject> key =
        rsa ? made(here, readImportedRsaBlob(blob), makeRsaKey, status)
            : made(here, readImportedEccBlob(blob), makeEcKey, status);
    if (key != nullptr) {
        NV_DBG("Imported the public key, length=%d bits", static_cast<int>(key->keyLength()));
        handle = fileImported(std::move(key));
    }
    return trace.leaving(status);
}

std::shared_ptr<P11KeyObject> KeyStore::ownerOf(NCRYPT_KEY_HANDLE handle)
{
    if (auto opened = ownerOfOpened(handle))
        return opened;
    const std::lock_guard guard(lock_);
    const auto entry = ephemeralKeys_.find(handle);
    return entry != ephemeralKeys_.end() ? entry->second : nullptr;
}

std::shared_ptr<P11KeyObject> KeyStore::importedRSAKey(NCRYPT_KEY_HANDLE handle)
{
    const std::lock_guard guard(lock_);
    const auto entry = ephemeralKeys_.find(handle);
    const bool found = entry != ephemeralKeys_.end() && entry->second->algorithm() == "RSA";
    return found ? entry->second : nullptr;
}

}  // namespace NV
