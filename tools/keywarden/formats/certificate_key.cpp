// Decoding by crypt32.

#include "formats/certificate_key.h"

#include <bcrypt.h>

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

#include "base/curve.h"

namespace NV::tool {

namespace {

Bytes publicKeyBits(const CERT_CONTEXT& certificate)
{
    const CRYPT_BIT_BLOB& bits = certificate.pCertInfo->SubjectPublicKeyInfo.PublicKey;
    return {bits.pbData, bits.pbData + bits.cbData};
}

const CRYPT_ALGORITHM_IDENTIFIER& algorithmOf(const CERT_CONTEXT& certificate)
{
    return certificate.pCertInfo->SubjectPublicKeyInfo.Algorithm;
}

bool isRsa(const CERT_CONTEXT& certificate)
{
    return std::string_view(algorithmOf(certificate).pszObjId) == szOID_RSA_RSA;
}

// Null for a curve that is not named or that CNG has no blob for.
const Curve* curveOf(const CERT_CONTEXT& certificate)
{
    const CRYPT_OBJID_BLOB& parameters = algorithmOf(certificate).Parameters;
    DWORD size = 0;
    if (std::string_view(algorithmOf(certificate).pszObjId) != szOID_ECC_PUBLIC_KEY ||
        !CryptDecodeObject(X509_ASN_ENCODING, X509_OBJECT_IDENTIFIER, parameters.pbData,
                           parameters.cbData, 0, nullptr, &size))
        return nullptr;
    // It begins with a pointer to the text, which follows.
    std::vector<LPSTR> text(size / sizeof(LPSTR) + 1);
    if (!CryptDecodeObject(X509_ASN_ENCODING, X509_OBJECT_IDENTIFIER, parameters.pbData,
                           parameters.cbData, 0, text.data(), &size))
        return nullptr;
    const auto curve = std::ranges::find(cngCurves, std::string_view(text.front()), &Curve::oid);
    return curve != cngCurves.end() ? &*curve : nullptr;
}

Bytes ecBlob(const Curve& curve, const Bytes& point)
{
    if (point.size() != 1 + 2 * curve.coordinateSize() || point.front() != 0x04)
        return {};
    const BCRYPT_ECCKEY_BLOB head{curve.ecdsaMagic, curve.coordinateSize()};
    const auto* begin = reinterpret_cast<const unsigned char*>(&head);
    Bytes blob(begin, begin + sizeof head);
    blob.insert(blob.end(), point.begin() + 1, point.end());
    return blob;
}

}  // namespace

Bytes withoutLeadingZeros(const Bytes& number)
{
    return {std::ranges::find_if(number, [](unsigned char byte) { return byte != 0; }),
            number.end()};
}

std::optional<RsaNumbers> rsaNumbers(const Bytes& publicKey)
{
    DWORD size = 0;
    const auto decode = [&](BYTE* output) {
        return CryptDecodeObject(X509_ASN_ENCODING, RSA_CSP_PUBLICKEYBLOB, publicKey.data(),
                                 static_cast<DWORD>(publicKey.size()), 0, output, &size) != FALSE;
    };
    if (!decode(nullptr))
        return std::nullopt;
    Bytes legacy(size);
    if (!decode(legacy.data()))
        return std::nullopt;
    legacy.resize(size);
    const auto head = readLegacyRsaHead(legacy);
    if (!head)
        return std::nullopt;
    RsaNumbers numbers;
    // Least significant byte first.
    numbers.modulus =
        withoutLeadingZeros(Bytes(legacy.rbegin(), legacy.rend() - sizeof(LegacyRsaHead)));
    for (uint32_t rest = head->exponent; rest != 0; rest >>= 8)
        numbers.exponent.insert(numbers.exponent.begin(), static_cast<unsigned char>(rest));
    if (numbers.modulus.empty() || numbers.exponent.empty())
        return std::nullopt;
    return numbers;
}

Bytes cngPublicKey(const CERT_CONTEXT& certificate)
{
    const Bytes bits = publicKeyBits(certificate);
    if (isRsa(certificate)) {
        const auto numbers = rsaNumbers(bits);
        return numbers ? rsaBlob(*numbers) : Bytes{};
    }
    const Curve* curve = curveOf(certificate);
    return curve != nullptr ? ecBlob(*curve, bits) : Bytes{};
}

}  // namespace NV::tool
