// The computations of the scripted token, written again from its README and its rules.

#include "token_model.h"

#include <algorithm>
#include <cstring>
#include <span>

#include "rules.h"
#include "scripted_token_values.h"

namespace NV::fuzz {

namespace {

struct Hash {
    const wchar_t* name;
    CK_MECHANISM_TYPE digest;
    CK_MECHANISM_TYPE hmac;
    CK_RSA_PKCS_MGF_TYPE mgf;
    CK_MECHANISM_TYPE rsaPkcs;
    uint32_t size;
    uint8_t identifier;  // the last byte of the object identifier in a DigestInfo; 0: no DigestInfo
};

constexpr Hash hashes[] = {
    {L"SHA1", CKM_SHA_1, CKM_SHA_1_HMAC, CKG_MGF1_SHA1, CKM_SHA1_RSA_PKCS, 20, 0},
    {L"SHA256", CKM_SHA256, CKM_SHA256_HMAC, CKG_MGF1_SHA256, CKM_SHA256_RSA_PKCS, 32, 1},
    {L"SHA384", CKM_SHA384, CKM_SHA384_HMAC, CKG_MGF1_SHA384, CKM_SHA384_RSA_PKCS, 48, 2},
    {L"SHA512", CKM_SHA512, CKM_SHA512_HMAC, CKG_MGF1_SHA512, CKM_SHA512_RSA_PKCS, 64, 3},
};

const Hash* findHash(const wchar_t* name)
{
    for (const Hash& hash : hashes) {
        if (name != nullptr && std::wstring_view(name) == hash.name)
            return &hash;
    }
    return nullptr;
}

// Those of modern besides SHA-2.
const Bytes sha1DigestInfo = {0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2B, 0x0E,
                              0x03, 0x02, 0x1A, 0x05, 0x00, 0x04, 0x14};
const Bytes md5DigestInfo = {0x30, 0x20, 0x30, 0x0C, 0x06, 0x08, 0x2A, 0x86, 0x48,
                             0x86, 0xF7, 0x0D, 0x02, 0x05, 0x05, 0x00, 0x04, 0x10};
constexpr size_t md5Size = 16;

bool isMd5(const wchar_t* name)
{
    return name != nullptr && std::wstring_view(name) == L"MD5";
}

Bytes digestInfo(const Hash& hash)
{
    if (hash.identifier == 0)
        return rules.checksHashNames ? sha1DigestInfo : Bytes{};
    const auto size = static_cast<uint8_t>(hash.size);
    return {0x30,
            static_cast<uint8_t>(size + 17),
            0x30,
            0x0D,
            0x06,
            0x09,
            0x60,
            0x86,
            0x48,
            0x01,
            0x65,
            0x03,
            0x04,
            0x02,
            hash.identifier,
            0x05,
            0x00,
            0x04,
            size};
}

Bytes joined(const Bytes& first, const Bytes& second)
{
    Bytes all(first);
    all.insert(all.end(), second.begin(), second.end());
    return all;
}

constexpr CK_ULONG pkcsPadding = 11;
constexpr size_t headSize = 8;

// A mechanism that the module chooses; nothing: the token does not know it.
struct Mechanism {
    CK_MECHANISM_TYPE type;
    const Hash* hash = nullptr;  // of PSS and OAEP
    Bytes parameters = {};       // of OAEP, the label behind it
};

std::optional<Mechanism> cipherMechanism(const Padding& padding)
{
    std::optional<Mechanism> chosen;
    if ((padding.flags & BCRYPT_PAD_NONE) != 0)
        chosen = Mechanism{CKM_RSA_X_509};
    if ((padding.flags & BCRYPT_PAD_PKCS1) != 0)
        chosen = Mechanism{CKM_RSA_PKCS};
    const Hash* const hash = padding.infoGiven ? findHash(padding.hashName) : nullptr;
    if ((padding.flags & BCRYPT_PAD_OAEP) != 0 && hash != nullptr) {
        const CK_RSA_PKCS_OAEP_PARAMS block{hash->digest, hash->mgf, CKZ_DATA_SPECIFIED, nullptr,
                                            static_cast<CK_ULONG>(padding.label.size())};
        const auto* const begin = reinterpret_cast<const unsigned char*>(&block);
        chosen = Mechanism{CKM_RSA_PKCS_OAEP, hash,
                           joined(Bytes(begin, begin + sizeof block), padding.label)};
    }
    return chosen;
}

size_t mostData(const Mechanism& mechanism, size_t modulusSize)
{
    size_t overhead = mechanism.type == CKM_RSA_X_509 ? 0 : pkcsPadding;
    if (mechanism.hash != nullptr)
        overhead = 2 + 2 * mechanism.hash->size;
    return modulusSize > overhead ? modulusSize - overhead : 0;
}

Bytes checkBytes(const Mechanism& mechanism)
{
    return test::pattern(mechanism.type, mechanism.parameters, 4);
}

Bytes masked(Bytes block)
{
    for (size_t i = 0; i < block.size(); ++i)
        block[i] = static_cast<unsigned char>(block[i] ^ (0x5A + 3 * i));
    return block;
}

// Signing sends the DigestInfo and the hash as raw data; verifying names the hash by the mechanism.
TokenResult rsaSignature(const KeyFacts& key, const Padding& padding, const Bytes& hash,
                         bool verifying)
{
    const Hash* const named = padding.infoGiven ? findHash(padding.hashName) : nullptr;
    CK_MECHANISM_TYPE type = CKM_RSA_PKCS;
    Bytes data = hash;
    if ((padding.flags & BCRYPT_PAD_PSS) != 0 && named != nullptr) {
        if (hash.size() != named->size)
            return std::nullopt;
        return test::pattern(CKM_RSA_PKCS_PSS, hash, key.size());
    }
    if ((padding.flags & BCRYPT_PAD_PKCS1) != 0 && named != nullptr) {
        if (verifying && !rules.verifiesAsItSigns)
            type = named->rsaPkcs;
        else
            data = joined(digestInfo(*named), hash);
    }
    if ((padding.flags & BCRYPT_PAD_PKCS1) != 0 && padding.infoGiven && isMd5(padding.hashName) &&
        rules.checksHashNames)
        data = joined(md5DigestInfo, hash);
    if (type == CKM_RSA_PKCS && data.size() > key.size() - pkcsPadding)
        return std::nullopt;
    return test::pattern(type, data, key.size());
}

TokenResult anySignature(const KeyFacts& key, const Padding& padding, const Bytes& hash,
                         bool verifying)
{
    if (!key.onToken)
        return std::nullopt;
    if (!key.rsa)
        return test::pattern(CKM_ECDSA, hash, key.signatureSize());
    return rsaSignature(key, padding, hash, verifying);
}

}  // namespace

TokenResult signature(const KeyFacts& key, const Padding& padding, const Bytes& hash)
{
    return anySignature(key, padding, hash, false);
}

TokenResult verifiedSignature(const KeyFacts& key, const Padding& padding, const Bytes& hash)
{
    return anySignature(key, padding, hash, true);
}

TokenResult encrypted(const KeyFacts& key, const Padding& padding, const Bytes& data)
{
    const auto mechanism = cipherMechanism(padding);
    if (!key.onToken || !mechanism || data.size() > mostData(*mechanism, key.size()))
        return std::nullopt;
    constexpr unsigned char mark = 0x2E;
    constexpr unsigned char filler = 0xD7;
    const bool raw = mechanism->type == CKM_RSA_X_509;
    Bytes block(key.size(), raw ? 0 : filler);
    if (!raw) {
        const Bytes check = checkBytes(*mechanism);
        block[0] = mark;
        block[1] = static_cast<unsigned char>(mechanism->type);
        block[2] = static_cast<unsigned char>(data.size() >> 8);
        block[3] = static_cast<unsigned char>(data.size());
        std::ranges::copy(check, block.begin() + 4);
    }
    std::ranges::copy(data, block.end() - static_cast<std::ptrdiff_t>(data.size()));
    return masked(std::move(block));
}

TokenResult decrypted(const KeyFacts& key, const Padding& padding, const Bytes& data)
{
    const auto mechanism = cipherMechanism(padding);
    if (!key.onToken || !mechanism || data.size() != key.size())
        return std::nullopt;
    const Bytes block = masked(data);
    if (mechanism->type == CKM_RSA_X_509)
        return block;
    const size_t size = (size_t{block[2]} << 8) + block[3];
    const Bytes check = checkBytes(*mechanism);
    if (block[0] != 0x2E || block[1] != static_cast<unsigned char>(mechanism->type) ||
        !std::ranges::equal(std::span(block).subspan(4, 4), check) ||
        size + headSize > block.size())
        return std::nullopt;
    return Bytes(block.end() - static_cast<std::ptrdiff_t>(size), block.end());
}

SECURITY_STATUS signatureRefusal(const KeyFacts& key, const Padding& padding, const Bytes& hash)
{
    if (!key.rsa)
        return ERROR_SUCCESS;
    const bool pss = (padding.flags & BCRYPT_PAD_PSS) != 0;
    const bool pkcs1 = (padding.flags & BCRYPT_PAD_PKCS1) != 0 && padding.hashName != nullptr;
    if (!pss && !pkcs1)
        return ERROR_SUCCESS;
    const Hash* const named = findHash(padding.hashName);
    const bool md5 = !pss && isMd5(padding.hashName);
    if (named == nullptr && !md5)
        return NTE_NOT_SUPPORTED;
    const size_t size = md5 ? md5Size : named->size;
    return hash.size() == size ? ERROR_SUCCESS : NTE_INVALID_PARAMETER;
}

SECURITY_STATUS cipherRefusal(const KeyFacts& key, const Padding& padding)
{
    if (!key.rsa)
        return NTE_NOT_SUPPORTED;
    if ((padding.flags & BCRYPT_PAD_OAEP) != 0 && padding.infoGiven)
        return findHash(padding.hashName) != nullptr ? ERROR_SUCCESS : NTE_NOT_SUPPORTED;
    const bool chosen = (padding.flags & (BCRYPT_PAD_NONE | BCRYPT_PAD_PKCS1)) != 0;
    return chosen ? ERROR_SUCCESS : NTE_NOT_SUPPORTED;
}

bool isTooLong(const KeyFacts& key, const Padding& padding, const Bytes& data)
{
    const auto mechanism = cipherMechanism(padding);
    return mechanism && data.size() > mostData(*mechanism, key.size());
}

TokenResult agreed(const KeyFacts& key, const Bytes& point)
{
    if (!key.onToken || key.rsa)
        return std::nullopt;
    const size_t pointSize = 1 + size_t{2} * key.size();
    for (const size_t head : {size_t{0}, size_t{2}, size_t{3}}) {
        if (point.size() == head + pointSize && point[0] == 0x04 && point[head] == 0x04)
            return test::repeated(test::kSecretPattern, key.size());
    }
    return std::nullopt;
}

TokenResult derived(const std::wstring& hashName, bool hmac, const Bytes& hmacKey,
                    const Bytes& data)
{
    const Hash* const hash = findHash(hashName.c_str());
    if (hash == nullptr)
        return std::nullopt;
    return hmac ? test::pattern(hash->hmac, joined(hmacKey, data), hash->size)
                : test::pattern(hash->digest, data, hash->size);
}

}  // namespace NV::fuzz
