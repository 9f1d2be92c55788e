// Properties and blobs of a key, written from the declarations of CNG and CryptoAPI.

#include "key_facts.h"

#include <algorithm>
#include <iterator>
#include <span>

#include "keystore/keystore_blob.h"

namespace NV::fuzz {

namespace {

struct CurveFacts {
    uint32_t bits;
    const wchar_t* name;
    ULONG magic;
};

constexpr CurveFacts curveFacts[] = {
    {256, L"nistP256", BCRYPT_ECDSA_PUBLIC_P256_MAGIC},
    {384, L"nistP384", BCRYPT_ECDSA_PUBLIC_P384_MAGIC},
    {521, L"nistP521", BCRYPT_ECDSA_PUBLIC_P521_MAGIC},
};

const CurveFacts& curveOf(const KeyFacts& key)
{
    return *std::ranges::find(curveFacts, key.bits, &CurveFacts::bits);
}

template <typename Value>
void append(Bytes& bytes, const Value& value)
{
    const auto* const begin = reinterpret_cast<const unsigned char*>(&value);
    bytes.insert(bytes.end(), begin, begin + sizeof value);
}

// The public key is a SEQUENCE of two INTEGER. The first one begins with a zero, because its highest bit is
// set.
size_t modulusPlace(const KeyFacts& key)
{
    const size_t longLengths = key.size() >= 256 ? 4 : key.size() >= 128 ? 2 : 0;
    return 5 + longLengths;
}

std::span<const unsigned char> modulusOf(const KeyFacts& key)
{
    return std::span(key.publicKey).subspan(modulusPlace(key), key.size());
}

// Behind a tag and a length of one byte each.
std::span<const unsigned char> exponentOf(const KeyFacts& key)
{
    return std::span(key.publicKey).subspan(modulusPlace(key) + key.size() + 2);
}

Bytes rsaBlobWith(const KeyFacts& key, std::span<const unsigned char> exponent)
{
    Bytes blob;
    append(blob, RsaBlobHead{BCRYPT_RSAPUBLIC_MAGIC, key.bits,
                             static_cast<uint32_t>(exponent.size()), key.size(), 0, 0});
    blob.insert(blob.end(), exponent.begin(), exponent.end());
    std::ranges::copy(modulusOf(key), std::back_inserter(blob));
    return blob;
}

}  // namespace

Bytes bytesOf(const std::wstring& text)
{
    const auto* const begin = reinterpret_cast<const unsigned char*>(text.c_str());
    return {begin, begin + (text.size() + 1) * sizeof(wchar_t)};
}

Bytes bytesOf(DWORD number)
{
    Bytes bytes;
    append(bytes, number);
    return bytes;
}

Bytes nameOf(const KeyFacts& key)
{
    return bytesOf(key.name);
}

Bytes algorithmOf(const KeyFacts& key)
{
    return bytesOf(key.rsa ? L"RSA" : L"ECDSA_P" + std::to_wstring(key.bits));
}

Bytes algorithmGroupOf(const KeyFacts& key)
{
    return bytesOf(key.rsa ? std::wstring(L"RSA") : std::wstring(L"ECDSA"));
}

Bytes bitsOf(const KeyFacts& key)
{
    return bytesOf(key.bits);
}

// Minimum, maximum, increment, default.
Bytes lengthsOf(const KeyFacts& key)
{
    Bytes bytes;
    for (const DWORD number : {key.bits, key.bits, uint32_t{0}, key.bits})
        append(bytes, number);
    return bytes;
}

Bytes signatureLengthOf(const KeyFacts& key)
{
    return bytesOf(key.signatureSize());
}

Bytes blockLengthOf(const KeyFacts& key)
{
    return key.rsa ? bytesOf(key.size()) : Bytes{};
}

Bytes curveNameOf(const KeyFacts& key)
{
    return key.rsa ? Bytes{} : bytesOf(std::wstring(curveOf(key).name));
}

Bytes certificateOf(const KeyFacts& key)
{
    return key.certificate;
}

Bytes rsaBlobWithUsualExponent(const KeyFacts& key)
{
    static constexpr unsigned char usual[] = {0x01, 0x00, 0x01};
    return rsaBlobWith(key, usual);
}

Bytes rsaBlob(const KeyFacts& key)
{
    return rsaBlobWith(key, exponentOf(key));
}

Bytes eccBlob(const KeyFacts& key)
{
    Bytes blob;
    append(blob, EccBlobHead{curveOf(key).magic, key.size()});
    // An imported point may be shorter than the curve's, or longer.
    const size_t pointSize = 1 + size_t{2} * key.size();
    if (key.publicKey.size() >= pointSize)
        blob.insert(blob.end(), key.publicKey.begin() + 1,
                    key.publicKey.begin() + static_cast<std::ptrdiff_t>(pointSize));
    return blob;
}

Bytes legacyBlob(const KeyFacts& key)
{
    // BLOBHEADER: PUBLICKEYBLOB, version 2, CALG_RSA_KEYX. RSAPUBKEY: "RSA1", bits, exponent.
    Bytes blob{0x06, 0x02, 0x00, 0x00, 0x00, 0xA4, 0x00, 0x00, 'R', 'S', 'A', '1'};
    append(blob, DWORD{8 * key.size()});
    const auto exponent = exponentOf(key);
    blob.insert(blob.end(), exponent.rbegin(), exponent.rend());
    blob.resize(20);
    const auto modulus = modulusOf(key);
    blob.insert(blob.end(), modulus.rbegin(), modulus.rend());
    return blob;
}

bool isBelowModulus(const KeyFacts& key, const Bytes& data)
{
    return data.size() < key.size() || std::ranges::lexicographical_compare(data, modulusOf(key));
}

}  // namespace NV::fuzz
