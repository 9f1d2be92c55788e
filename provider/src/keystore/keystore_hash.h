// The hash algorithms of key operations, one row each: the name in CNG and the values for PKCS#11.

#pragma once

#include <cstdint>
#include <string_view>

#include "p11/cryptoki.h"

namespace NV {

struct HashAlgorithm {
    std::wstring_view name;    // BCRYPT_SHA1_ALGORITHM and so on
    uint32_t size;             // of a hash value, in bytes
    CK_MECHANISM_TYPE digest;  // also the hash parameter of PSS and OAEP
    CK_MECHANISM_TYPE hmac;
    CK_KEY_TYPE hmacKey;
    CK_RSA_PKCS_MGF_TYPE mgf;
    CK_MECHANISM_TYPE rsaPkcs;  // hash and PKCS #1 v1.5 signature in one
    // DER header of the DigestInfo (RFC 8017, 9.2) in hexadecimal. Compat: SHA-1 has none, so the
    // token signs the bare hash.
    std::string_view digestInfo;
};

inline constexpr HashAlgorithm hashAlgorithms[] = {
    {L"SHA1", 20, CKM_SHA_1, CKM_SHA_1_HMAC, CKK_SHA_1_HMAC, CKG_MGF1_SHA1, CKM_SHA1_RSA_PKCS, ""},
    {L"SHA256", 32, CKM_SHA256, CKM_SHA256_HMAC, CKK_SHA256_HMAC, CKG_MGF1_SHA256,
     CKM_SHA256_RSA_PKCS, "3031300D060960864801650304020105000420"},
    {L"SHA384", 48, CKM_SHA384, CKM_SHA384_HMAC, CKK_SHA384_HMAC, CKG_MGF1_SHA384,
     CKM_SHA384_RSA_PKCS, "3041300D060960864801650304020205000430"},
    {L"SHA512", 64, CKM_SHA512, CKM_SHA512_HMAC, CKK_SHA512_HMAC, CKG_MGF1_SHA512,
     CKM_SHA512_RSA_PKCS, "3051300D060960864801650304020305000440"},
};

// The row of a name, compared exactly. Null for a null name or an unknown one.
constexpr const HashAlgorithm* findHashAlgorithm(const wchar_t* name)
{
    for (const HashAlgorithm& row : hashAlgorithms) {
        if (name != nullptr && row.name == name)
            return &row;
    }
    return nullptr;
}

// A hash that a PKCS #1 v1.5 signature may name, where names are checked.
struct SignedHash {
    std::wstring_view name;
    uint32_t size;                // of a hash value, in bytes
    std::string_view digestInfo;  // the DER header in hexadecimal
};

inline constexpr SignedHash signedHashes[] = {
    {L"MD5", 16, "3020300C06082A864886F70D020505000410"},
    {L"SHA1", 20, "3021300906052B0E03021A05000414"},
    {L"SHA256", 32, findHashAlgorithm(L"SHA256")->digestInfo},
    {L"SHA384", 48, findHashAlgorithm(L"SHA384")->digestInfo},
    {L"SHA512", 64, findHashAlgorithm(L"SHA512")->digestInfo},
};

// The row of a name, compared exactly. Null for a null name or an unknown one.
constexpr const SignedHash* findSignedHash(const wchar_t* name)
{
    for (const SignedHash& row : signedHashes) {
        if (name != nullptr && row.name == name)
            return &row;
    }
    return nullptr;
}

}  // namespace NV
