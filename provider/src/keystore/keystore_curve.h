// The elliptic curves that CNG has blobs for, one row each. Portable.

#pragma once

#include <cstdint>
#include <string_view>

namespace NV {

struct Curve {
    uint32_t keyLength;       // bits
    uint32_t coordinateSize;  // bytes of each coordinate, and of each half of a signature
    uint32_t ecdsaMagic;      // of the public key blob that is exported
    uint32_t ecdhMagic;       // of the public key blob that is imported
    const char* ecdhMagicName;
    const wchar_t* algorithmName;  // of the "Algorithm Name" property
    std::string_view oid;          // of the named curve, dotted
};

// The magics are BCRYPT_ECDSA_PUBLIC_P256_MAGIC and its kin; keystore_ec.cpp holds them to those.
inline constexpr Curve curves[] = {
    {256, 32, 0x31534345, 0x314B4345, "BCRYPT_ECDH_PUBLIC_P256_MAGIC", L"ECDSA_P256",
     "1.2.840.10045.3.1.7"},
    {384, 48, 0x33534345, 0x334B4345, "BCRYPT_ECDH_PUBLIC_P384_MAGIC", L"ECDSA_P384",
     "1.3.132.0.34"},
    {521, 66, 0x35534345, 0x354B4345, "BCRYPT_ECDH_PUBLIC_P521_MAGIC", L"ECDSA_P521",
     "1.3.132.0.35"},
};

// The row where the member has the value; null when there is none.
constexpr const Curve* findCurve(uint32_t Curve::*member, uint32_t value)
{
    for (const Curve& curve : curves) {
        if (curve.*member == value)
            return &curve;
    }
    return nullptr;
}

}  // namespace NV
