// The public key algorithms and the elliptic curves that certificates name, one row each. Portable;
// used by the key store, the certificate store and the tool.

#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <span>
#include <string_view>
#include <type_traits>

namespace NV {

// The algorithm of a certificate's public key.
inline constexpr std::wstring_view rsaOid = L"1.2.840.113549.1.1.1";
inline constexpr std::wstring_view ecOid = L"1.2.840.10045.2.1";

struct Curve {
    std::string_view oid;
    uint32_t keyLength;  // bits

    // The rest is empty for a curve that CNG has no blob for.
    uint32_t ecdsaMagic = 0;  // of the public key blob that is exported
    uint32_t ecdhMagic = 0;   // of the public key blob that is imported
    const char* ecdhMagicName = nullptr;
    const wchar_t* algorithmName = nullptr;  // of the "Algorithm Name" property
    const wchar_t* cngName = nullptr;        // of the "ECCCurveName" property

    // Bytes of each coordinate, and of each half of a signature.
    constexpr uint32_t coordinateSize() const { return (keyLength + 7) / 8; }
};

// The magics are BCRYPT_ECDSA_PUBLIC_P256_MAGIC and so on; keystore_ec.cpp asserts that.
inline constexpr Curve curves[] = {
    {"1.2.840.10045.3.1.7", 256, 0x31534345, 0x314B4345, "BCRYPT_ECDH_PUBLIC_P256_MAGIC",
     L"ECDSA_P256", L"nistP256"},
    {"1.3.132.0.34", 384, 0x33534345, 0x334B4345, "BCRYPT_ECDH_PUBLIC_P384_MAGIC", L"ECDSA_P384",
     L"nistP384"},
    {"1.3.132.0.35", 521, 0x35534345, 0x354B4345, "BCRYPT_ECDH_PUBLIC_P521_MAGIC", L"ECDSA_P521",
     L"nistP521"},
    {"1.2.840.10045.3.1.1", 192},    // P-192
    {"1.3.132.0.33", 224},           // P-224
    {"1.3.132.0.10", 256},           // secp256k1
    {"1.3.36.3.3.2.8.1.1.7", 256},   // brainpoolP256r1
    {"1.3.36.3.3.2.8.1.1.11", 384},  // brainpoolP384r1
    {"1.3.36.3.3.2.8.1.1.13", 512},  // brainpoolP512r1
};

// The curves that CNG has blobs for: P-256, P-384 and P-521.
inline constexpr std::span<const Curve> cngCurves(std::begin(curves), 3);

// The curve of an object identifier; null when it is unknown.
constexpr const Curve* findNamedCurve(std::string_view oid)
{
    const auto* row = std::ranges::find(curves, oid, &Curve::oid);
    return row != std::end(curves) ? row : nullptr;
}

// The row of cngCurves where the member has the value; null when there is none.
template <typename Value>
constexpr const Curve* findCngCurve(Value Curve::*member, std::type_identity_t<Value> value)
{
    const auto row = std::ranges::find(cngCurves, value, member);
    return row != cngCurves.end() ? &*row : nullptr;
}

// The length of a key whose curve is not in the table, in bits, by the size of its coordinates in
// bytes: that of the first row with the same size, because 66 bytes are 521 bits.
constexpr uint32_t keyLengthByCoordinates(uint32_t coordinateSize)
{
    const auto* row = std::ranges::find_if(curves, [coordinateSize](const Curve& curve) {
        return curve.coordinateSize() == coordinateSize;
    });
    return row != std::end(curves) ? row->keyLength : 8 * coordinateSize;
}

}  // namespace NV
