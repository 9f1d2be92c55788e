// Encoding and decoding of public keys with the functions of the system.

#include "formats/public_key.h"

#include <bcrypt.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>

#include "base/curve.h"
#include "failure.h"

namespace NV::tool {

namespace {

constexpr std::string_view pemBegin = "-----BEGIN PUBLIC KEY-----";
constexpr std::string_view pemEnd = "-----END PUBLIC KEY-----";
constexpr size_t pemLine = 64;

struct LocalFreer {
    void operator()(void* block) const { LocalFree(block); }
};

// The decoded structure, in one block with the data that it points to. Null if the DER is invalid.
template <typename Structure>
std::unique_ptr<Structure, LocalFreer> decode(LPCSTR type, const BYTE* der, DWORD size)
{
    void* block = nullptr;
    DWORD length = 0;
    if (!CryptDecodeObjectEx(X509_ASN_ENCODING, type, der, size, CRYPT_DECODE_ALLOC_FLAG, nullptr,
                             static_cast<void*>(&block), &length))
        return nullptr;
    return std::unique_ptr<Structure, LocalFreer>(static_cast<Structure*>(block));
}

// Empty if it cannot be encoded.
Bytes encode(const CERT_PUBLIC_KEY_INFO& info)
{
    DWORD size = 0;
    if (!CryptEncodeObject(X509_ASN_ENCODING, X509_PUBLIC_KEY_INFO, &info, nullptr, &size))
        return {};
    Bytes der(size);
    if (!CryptEncodeObject(X509_ASN_ENCODING, X509_PUBLIC_KEY_INFO, &info, der.data(), &size))
        return {};
    der.resize(size);
    return der;
}

std::string curveOid(const CRYPT_OBJID_BLOB& parameters)
{
    const auto oid = decode<LPSTR>(X509_OBJECT_IDENTIFIER, parameters.pbData, parameters.cbData);
    return oid != nullptr ? *oid : "";
}

}  // namespace

Bytes publicKeyOf(const CERT_CONTEXT& certificate)
{
    Bytes der = encode(certificate.pCertInfo->SubjectPublicKeyInfo);
    if (der.empty())
        throw Failure("the certificate's public key cannot be encoded");
    return der;
}

std::string toPem(const Bytes& der, const std::string& kind)
{
    const std::string text = base64Encode(der);
    std::string pem = "-----BEGIN " + kind + "-----\n";
    for (size_t i = 0; i < text.size(); i += pemLine)
        pem += text.substr(i, pemLine) + "\n";
    return pem + "-----END " + kind + "-----\n";
}

Bytes publicKeyFromFile(const Bytes& content)
{
    const std::string text(content.begin(), content.end());
    const size_t begin = text.find(pemBegin);
    if (begin == std::string::npos)
        return content;
    const size_t end = text.find(pemEnd, begin);
    if (end == std::string::npos)
        throw Failure("the PEM file has no line \"" + std::string(pemEnd) + "\"");
    std::string body = text.substr(begin + pemBegin.size(), end - begin - pemBegin.size());
    std::erase_if(body, [](char c) { return c == '\r' || c == '\n' || c == ' ' || c == '\t'; });
    // The decoder stops at the first character that is not base64.
    Bytes der = base64Decode(body);
    if (base64Encode(der) != body)
        throw Failure("the PEM file is damaged: its text is not valid base64");
    return der;
}

Bytes ecdhBlob(const Bytes& publicKey)
{
    const auto info = decode<CERT_PUBLIC_KEY_INFO>(X509_PUBLIC_KEY_INFO, publicKey.data(),
                                                   static_cast<DWORD>(publicKey.size()));
    // The system's decoder ignores bytes after the structure.
    if (info == nullptr || encode(*info) != publicKey)
        throw Failure("the file does not contain a public key",
                      "Use a PEM file that begins with BEGIN PUBLIC KEY, or the same key as DER.");
    const std::string oid = curveOid(info->Algorithm.Parameters);
    const auto curve = std::ranges::find(cngCurves, std::string_view(oid), &Curve::oid);
    const CRYPT_BIT_BLOB& point = info->PublicKey;
    if (std::string_view(info->Algorithm.pszObjId) != szOID_ECC_PUBLIC_KEY ||
        curve == cngCurves.end() || point.cbData != 1 + 2 * curve->coordinateSize() ||
        point.pbData[0] != 0x04)
        throw Failure("the public key is not on P-256, P-384 or P-521");
    const BCRYPT_ECCKEY_BLOB header{curve->ecdhMagic, curve->coordinateSize()};
    Bytes blob(sizeof header + point.cbData - 1);
    std::memcpy(blob.data(), &header, sizeof header);
    std::copy(point.pbData + 1, point.pbData + point.cbData, blob.begin() + sizeof header);
    return blob;
}

}  // namespace NV::tool
