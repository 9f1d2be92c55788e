// A key's public key in the form of a blob type. Used by the provider's export operation.

#pragma once

#include "base/cng.h"

#include <string_view>

#include "keystore/keystore_key.h"

namespace NV {

struct ExportedKey {
    SECURITY_STATUS status = ERROR_SUCCESS;
    Bytes blob;  // empty after a failure
};

// The blob of the key's own type. NTE_INTERNAL_ERROR if the public key cannot be decoded.
ExportedKey exportOwnBlob(const P11KeyObject& key);

// The blob of a type. NTE_NOT_SUPPORTED for a type that does not fit the key, for a curve that CNG has no
// blobs for, and for a number that the blob has no room for; NTE_INTERNAL_ERROR if the public key cannot
// be decoded.
ExportedKey exportByType(const P11KeyObject& key, std::wstring_view blobType);

}  // namespace NV
