// The table of blob types.

#include "keystore/keystore_export.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "keystore/keystore_blob.h"
#include "keystore/keystore_rsa.h"

namespace NV {

namespace {

ExportedKey exportPoint(const P11KeyObject& key)
{
    const Curve* curve = key.curve();
    if (curve == nullptr)
        return {NTE_NOT_SUPPORTED, {}};
    ExportedKey exported = exportOwnBlob(key);
    // A point that cannot be split leaves the head alone.
    if (exported.blob.size() != sizeof(EccBlobHead) + 2 * size_t{curve->coordinateSize()})
        return {NTE_INTERNAL_ERROR, {}};
    return exported;
}

ExportedKey exportLegacy(const P11KeyObject& key)
{
    const auto numbers = static_cast<const P11RSAKeyObject&>(key).numbers();
    if (!numbers)
        return {NTE_INTERNAL_ERROR, {}};
    Bytes blob = legacyRsaBlob(*numbers);
    const SECURITY_STATUS status = blob.empty() ? NTE_NOT_SUPPORTED : ERROR_SUCCESS;
    return {status, std::move(blob)};
}

struct BlobForm {
    std::wstring_view type;
    std::string_view algorithm;  // of the keys that it fits
    ExportedKey (*make)(const P11KeyObject& key);
};

constexpr BlobForm blobForms[] = {
    {BCRYPT_PUBLIC_KEY_BLOB, "RSA", exportOwnBlob}, {BCRYPT_PUBLIC_KEY_BLOB, "ECDSA", exportPoint},
    {BCRYPT_RSAPUBLIC_BLOB, "RSA", exportOwnBlob},  {BCRYPT_ECCPUBLIC_BLOB, "ECDSA", exportPoint},
    {LEGACY_RSAPUBLIC_BLOB, "RSA", exportLegacy},
};

}  // namespace

ExportedKey exportOwnBlob(const P11KeyObject& key)
{
    Bytes blob = key.getPubkeyBlob();
    const SECURITY_STATUS status = blob.empty() ? NTE_INTERNAL_ERROR : ERROR_SUCCESS;
    return {status, std::move(blob)};
}

ExportedKey exportByType(const P11KeyObject& key, std::wstring_view blobType)
{
    const auto* form = std::ranges::find_if(blobForms, [&](const BlobForm& row) {
        return row.type == blobType && row.algorithm == key.algorithm();
    });
    return form != std::end(blobForms) ? form->make(key) : ExportedKey{NTE_NOT_SUPPORTED, {}};
}

}  // namespace NV
