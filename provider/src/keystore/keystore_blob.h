// Public keys as bytes from untrusted sources: CNG's blob of an import, the point in a certificate,
// and crypt32's legacy blob of an RSA key. Portable, without logging; used by the key store and the
// key objects. Never reads past the given bytes.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "base/curve.h"
#include "base/encoding.h"

namespace NV {

// The head of BCRYPT_ECCKEY_BLOB, little-endian. Both coordinates follow.
struct EccBlobHead {
    uint32_t magic;
    uint32_t coordinateSize;  // bytes
};

// The contents of an elliptic-curve public key blob.
struct EccBlob {
    // The curve of the ECDH magic. Null for any other magic and for fewer than four bytes.
    const Curve* curve = nullptr;
    // From the head, not from the curve. Missing bytes of the head count as zero.
    uint32_t coordinateSize = 0;
    // X followed by Y. Nothing when the blob is shorter than its head says.
    std::optional<std::span<const unsigned char>> coordinates;
};

EccBlob readEccBlob(std::span<const unsigned char> blob);

// 04 || X || Y (SEC 1, 2.3.3), made of X followed by Y.
Bytes uncompressedPoint(std::span<const unsigned char> coordinates);

// The coordinates of a point, big-endian.
struct PointCoordinates {
    Bytes x;
    Bytes y;
};

// Splits an uncompressed point. Both are empty unless the bytes begin with 04 and contain both.
PointCoordinates splitPoint(std::span<const unsigned char> point, size_t coordinateSize);

// The head of crypt32's RSA_CSP_PUBLICKEYBLOB, little-endian: BLOBHEADER and RSAPUBKEY. The modulus
// follows, least significant byte first.
struct LegacyRsaHead {
    uint8_t type;
    uint8_t version;
    uint16_t reserved;
    uint32_t algorithm;
    uint32_t magic;
    uint32_t bitLength;
    uint32_t exponent;

    // Bytes.
    uint32_t modulusSize() const { return bitLength / 8; }
};

// The head of BCRYPT_RSAKEY_BLOB, little-endian. Sizes are in bytes.
struct RsaBlobHead {
    uint32_t magic;
    uint32_t bitLength;
    uint32_t exponentSize;
    uint32_t modulusSize;
    uint32_t prime1Size;
    uint32_t prime2Size;
};

// Nothing when there are too few bytes for a head.
std::optional<LegacyRsaHead> readLegacyRsaHead(std::span<const unsigned char> legacy);

// CNG's public key blob, made of a legacy blob and its head. Empty when the modulus is incomplete.
Bytes rsaPublicKeyBlob(const LegacyRsaHead& head, std::span<const unsigned char> legacy);

// The numbers of an RSA public key, big-endian. Both begin with a byte that is not zero.
struct RsaNumbers {
    Bytes modulus;
    Bytes exponent;

    // Of the modulus.
    uint32_t bits() const;
};

// Reads a BCRYPT_RSAKEY_BLOB with the public magic. Zeros before a number are left out. Nothing for
// another magic, for a blob shorter than its head says, and for a number that is zero.
std::optional<RsaNumbers> readRsaBlob(std::span<const unsigned char> blob);

// CNG's public key blob with the key's own exponent and length.
Bytes rsaBlob(const RsaNumbers& numbers);

// CryptoAPI's PUBLICKEYBLOB. Empty for an exponent of more than 32 bits, for which it has no room.
Bytes legacyRsaBlob(const RsaNumbers& numbers);

}  // namespace NV
