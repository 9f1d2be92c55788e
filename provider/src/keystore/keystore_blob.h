// Public keys as bytes that come from outside: CNG's blob of an import, the point in a certificate,
// and the legacy blob that crypt32 makes of an RSA key. Portable, without logging; used by the key
// store and the key objects. Nothing past the given bytes is read, whatever they say.

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

// What a public key blob of an elliptic curve says.
struct EccBlob {
    // By the ECDH magic; null for any other magic, and when the bytes hold no whole one.
    const Curve* curve = nullptr;
    // As the head has it, not as the curve has it. What is missing of the head counts as zero.
    uint32_t coordinateSize = 0;
    // X and Y, one right behind the other; nothing when the blob is shorter than its head says.
    std::optional<std::span<const unsigned char>> coordinates;
};

EccBlob readEccBlob(std::span<const unsigned char> blob);

// 04 || X || Y (SEC 1, 2.3.3), of both coordinates one right behind the other.
Bytes uncompressedPoint(std::span<const unsigned char> coordinates);

// The coordinates of a point, big-endian.
struct PointCoordinates {
    Bytes x;
    Bytes y;
};

// Splits an uncompressed point. Both stay empty unless the bytes begin with 04 and hold both.
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

// Nothing when the bytes hold no whole head.
std::optional<LegacyRsaHead> readLegacyRsaHead(std::span<const unsigned char> legacy);

// CNG's public key blob of a legacy one whose head was read. Empty when the modulus is cut short.
Bytes rsaPublicKeyBlob(const LegacyRsaHead& head, std::span<const unsigned char> legacy);

}  // namespace NV
