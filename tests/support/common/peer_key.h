// A peer's public key as tests need it: coordinates, the uncompressed point, the CNG blob. Used by
// the tests of secrets and those on threads.

#pragma once

#include <cstdint>

#include "base/encoding.h"

namespace NV::test {

inline constexpr uint32_t ecdhP256 = 0x314B4345;
inline constexpr uint32_t ecdhP384 = 0x334B4345;
inline constexpr uint32_t ecdhP521 = 0x354B4345;

// X: 11 12 13 ..., Y: 61 62 63 ...
inline Bytes coordinate(unsigned char first, size_t size)
{
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<unsigned char>(first + i);
    return bytes;
}

inline Bytes joinedBytes(std::initializer_list<Bytes> pieces)
{
    Bytes all;
    for (const Bytes& piece : pieces)
        all.insert(all.end(), piece.begin(), piece.end());
    return all;
}

// 04 || X || Y
inline Bytes peerPoint(size_t coordinateSize)
{
    return joinedBytes(
        {{0x04}, coordinate(0x11, coordinateSize), coordinate(0x61, coordinateSize)});
}

// The two header fields, little-endian.
inline Bytes blobHeader(uint32_t magic, uint32_t cbKey)
{
    Bytes header;
    for (const uint32_t field : {magic, cbKey}) {
        for (unsigned shift = 0; shift < 32; shift += 8)
            header.push_back(static_cast<unsigned char>(field >> shift));
    }
    return header;
}

// A whole BCRYPT_ECCKEY_BLOB.
inline Bytes peerBlob(uint32_t magic, uint32_t coordinateSize)
{
    return joinedBytes({blobHeader(magic, coordinateSize), coordinate(0x11, coordinateSize),
                        coordinate(0x61, coordinateSize)});
}

}  // namespace NV::test
