// The checks, by the tables of hashes.

#include "keystore/keystore_padding.h"

#include "base/text.h"
#include "keystore/keystore_hash.h"

namespace NV {

namespace {

SECURITY_STATUS unknownHash(const Site& operation, const wchar_t* name)
{
    NV_UNDER(ERR, operation, "Unsupported hash algorithm [%s]", printable(name).c_str());
    return NTE_NOT_SUPPORTED;
}

template <typename Hash>
SECURITY_STATUS checkHash(const Site& operation, const SignatureCall& call, const Hash* hash,
                          const wchar_t* name)
{
    if (hash == nullptr)
        return unknownHash(operation, name);
    if (call.cbHashValue == hash->size)
        return ERROR_SUCCESS;
    NV_UNDER(ERR, operation, "The hash has %d bytes, and a hash of [%s] has %d",
             static_cast<int>(call.cbHashValue), printable(name).c_str(),
             static_cast<int>(hash->size));
    return NTE_INVALID_PARAMETER;
}

// The name that chooses a DigestInfo. Null for a padding without one.
const wchar_t* pkcs1HashName(const SignatureCall& call)
{
    const auto* info = static_cast<const BCRYPT_PKCS1_PADDING_INFO*>(call.pPaddingInfo);
    return (call.dwFlags & BCRYPT_PAD_PKCS1) != 0 && info != nullptr ? info->pszAlgId : nullptr;
}

}  // namespace

SECURITY_STATUS checkRsaSignature(const Site& operation, const SignatureCall& call)
{
    if ((call.dwFlags & BCRYPT_PAD_PSS) != 0) {
        const auto* name = static_cast<const BCRYPT_PSS_PADDING_INFO*>(call.pPaddingInfo)->pszAlgId;
        return checkHash(operation, call, findHashAlgorithm(name), name);
    }
    const wchar_t* name = pkcs1HashName(call);
    if (name == nullptr)
        return ERROR_SUCCESS;
    return checkHash(operation, call, findSignedHash(name), name);
}

SECURITY_STATUS checkRsaCipher(const Site& operation, const CipherCall& call)
{
    const auto* oaep = static_cast<const BCRYPT_OAEP_PADDING_INFO*>(call.pPaddingInfo);
    // With the flag for no padding, the information may be missing.
    if ((call.dwFlags & BCRYPT_PAD_OAEP) != 0 && oaep != nullptr)
        return findHashAlgorithm(oaep->pszAlgId) != nullptr
                   ? ERROR_SUCCESS
                   : unknownHash(operation, oaep->pszAlgId);
    if ((call.dwFlags & (BCRYPT_PAD_NONE | BCRYPT_PAD_PKCS1)) != 0)
        return ERROR_SUCCESS;
    NV_UNDER(ERR, operation, "There is no padding flag");
    return NTE_NOT_SUPPORTED;
}

Bytes digestInfoAndHash(const SignatureCall& call)
{
    Bytes data;
    if (const SignedHash* hash = findSignedHash(pkcs1HashName(call)))
        data = hexDecode(hash->digestInfo);
    data.insert(data.end(), call.pbHashValue, call.pbHashValue + call.cbHashValue);
    return data;
}

}  // namespace NV
