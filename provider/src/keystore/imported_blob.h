// The public key blobs that ImportKey takes, checked: whole, of a known kind, and of a curve that CNG
// knows. Portable, without logging; for the key store in modern. Never reads past the given bytes.

#pragma once

#include <cstdint>
#include <span>

#include "base/curve.h"
#include "base/encoding.h"
#include "keystore/keystore_blob.h"

namespace NV {

enum class BlobVerdict : uint8_t {
    accepted,
    damaged,  // short, or its fields do not agree with each other
    foreign,  // another kind of key, another curve, or a modulus that is too long
};

// A BCRYPT_ECCKEY_BLOB with an ECDH magic. The rest is for an accepted one.
struct ImportedEccKey {
    BlobVerdict verdict = BlobVerdict::damaged;
    const Curve* curve = nullptr;
    std::span<const unsigned char> coordinates;  // of the blob: X followed by Y
};

ImportedEccKey readImportedEccBlob(std::span<const unsigned char> blob);

// A BCRYPT_RSAKEY_BLOB of a public key. The numbers are those of an accepted one.
struct ImportedRsaKey {
    BlobVerdict verdict = BlobVerdict::damaged;
    RsaNumbers numbers;
};

ImportedRsaKey readImportedRsaBlob(std::span<const unsigned char> blob);

// RSAPublicKey (RFC 8017, A.1.1) in DER, as the public key of a certificate contains it. The numbers are
// not empty.
Bytes encodeRsaPublicKey(const RsaNumbers& numbers);

}  // namespace NV
