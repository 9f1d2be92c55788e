// BCrypt's keys, and what they verify and encrypt.

#include "keystore/keystore_public.h"

#include <algorithm>
#include <cstring>

#include "base/curve.h"
#include "config/mode.h"
#include "keystore/keystore_blob.h"
#include "keystore/keystore_hash.h"
#include "keystore/keystore_padding.h"

namespace NV {

namespace {

// ntstatus.h cannot be included beside windows.h.
constexpr NTSTATUS ntSuccess = 0;
constexpr auto ntInvalidParameter = static_cast<NTSTATUS>(0xC000000D);
constexpr auto ntNoMemory = static_cast<NTSTATUS>(0xC0000017);
constexpr auto ntInvalidSignature = static_cast<NTSTATUS>(0xC000A000);

// A public key of BCrypt, made for one operation: Wine's cannot be relied on after a failed one.
class BCryptKey {
public:
    BCryptKey(LPCWSTR algorithm, LPCWSTR blobType, Bytes blob)
    {
        if (algorithm == nullptr ||
            BCryptOpenAlgorithmProvider(&algorithm_, algorithm, nullptr, 0) != ntSuccess)
            return;
        if (BCryptImportKeyPair(algorithm_, nullptr, blobType, &key_, blob.data(),
                                static_cast<ULONG>(blob.size()), 0) != ntSuccess)
            key_ = nullptr;
    }
    ~BCryptKey()
    {
        if (key_ != nullptr)
            BCryptDestroyKey(key_);
        if (algorithm_ != nullptr)
            BCryptCloseAlgorithmProvider(algorithm_, 0);
    }
    BCryptKey(const BCryptKey&) = delete;
    BCryptKey& operator=(const BCryptKey&) = delete;

    // Null if BCrypt did not take the key.
    BCRYPT_KEY_HANDLE get() const { return key_; }

private:
    BCRYPT_ALG_HANDLE algorithm_ = nullptr;
    BCRYPT_KEY_HANDLE key_ = nullptr;
};

// BCrypt's name of the algorithm of an ECC blob; null for a curve that it has no name for.
LPCWSTR ecAlgorithm(const Bytes& blob)
{
    EccBlobHead head{};
    if (blob.size() < sizeof head)
        return nullptr;
    std::memcpy(&head, blob.data(), sizeof head);
    const Curve* curve = findCngCurve(&Curve::ecdsaMagic, head.magic);
    return curve != nullptr ? curve->algorithmName : nullptr;
}

BCryptKey rsaKey(const P11KeyObject& key)
{
    return {BCRYPT_RSA_ALGORITHM, BCRYPT_RSAPUBLIC_BLOB, key.getPubkeyBlob()};
}

std::optional<SECURITY_STATUS> verificationStatus(NTSTATUS result)
{
    switch (result) {
    case ntSuccess:
        return ERROR_SUCCESS;
    case ntInvalidSignature:
    case ntInvalidParameter:  // a number that is not below the modulus, a salt that does not fit
        return NTE_BAD_SIGNATURE;
    case ntNoMemory:
        return NTE_NO_MEMORY;
    default:
        return std::nullopt;
    }
}

// 00 01 FF ... FF 00 and the data (RFC 8017, 9.2). Empty if the data does not fit.
Bytes paddedForSignature(const Bytes& data, size_t size)
{
    constexpr size_t leastPadding = 11;
    if (size < leastPadding || data.size() > size - leastPadding)
        return {};
    Bytes block(size, 0xFF);
    const auto dataBegin = block.end() - static_cast<std::ptrdiff_t>(data.size());
    block.front() = 0;
    block[1] = 1;
    *(dataBegin - 1) = 0;
    std::ranges::copy(data, dataBegin);
    return block;
}

// PKCS #1 v1.5 over the data itself. BCrypt decrypts the signature with the public key, because
// its verification knows neither a signature without a hash name everywhere, nor MD5.
std::optional<SECURITY_STATUS> verifyRecovered(const BCryptKey& key, const SignatureCall& call)
{
    Bytes recovered(call.cbSignature);
    ULONG length = 0;
    const NTSTATUS result =
        BCryptEncrypt(key.get(), call.pbSignature, call.cbSignature, nullptr, nullptr, 0,
                      recovered.data(), call.cbSignature, &length, BCRYPT_PAD_NONE);
    if (result != ntSuccess)
        return verificationStatus(result);
    const bool equal = recovered == paddedForSignature(digestInfoAndHash(call), recovered.size());
    return equal ? ERROR_SUCCESS : NTE_BAD_SIGNATURE;
}

std::optional<SECURITY_STATUS> verifyRsa(const BCryptKey& key, const SignatureCall& call)
{
    const auto verified = [&](ULONG flag) {
        return verificationStatus(BCryptVerifySignature(key.get(), call.pPaddingInfo,
                                                        call.pbHashValue, call.cbHashValue,
                                                        call.pbSignature, call.cbSignature, flag));
    };
    if ((call.dwFlags & BCRYPT_PAD_PSS) != 0)
        return verified(BCRYPT_PAD_PSS);
    const auto* info = static_cast<const BCRYPT_PKCS1_PADDING_INFO*>(call.pPaddingInfo);
    if ((call.dwFlags & BCRYPT_PAD_PKCS1) != 0 && findHashAlgorithm(info->pszAlgId) != nullptr)
        return verified(BCRYPT_PAD_PKCS1);
    return verifyRecovered(key, call);
}

std::optional<SECURITY_STATUS> verifyEc(const P11KeyObject& key, const SignatureCall& call)
{
    Bytes blob = key.getPubkeyBlob();
    LPCWSTR algorithm = ecAlgorithm(blob);
    const BCryptKey publicKey(algorithm, BCRYPT_ECCPUBLIC_BLOB, std::move(blob));
    if (publicKey.get() == nullptr)
        return std::nullopt;
    return verificationStatus(BCryptVerifySignature(publicKey.get(), nullptr, call.pbHashValue,
                                                    call.cbHashValue, call.pbSignature,
                                                    call.cbSignature, 0));
}

bool isRsa(const P11KeyObject& key)
{
    return key.algorithm() == "RSA";
}

// A padding of encryption, and how many bytes it takes of the modulus.
struct CipherPadding {
    ULONG flag;
    void* info;
    size_t size;
};

// As mechanismEncryption chooses: the last of several flags.
CipherPadding cipherPadding(const CipherCall& call)
{
    auto* oaep = static_cast<BCRYPT_OAEP_PADDING_INFO*>(call.pPaddingInfo);
    if (oaep != nullptr && (call.dwFlags & BCRYPT_PAD_OAEP) != 0) {
        const HashAlgorithm* hash = findHashAlgorithm(oaep->pszAlgId);
        return {BCRYPT_PAD_OAEP, oaep, 2 + 2 * size_t{hash != nullptr ? hash->size : 0}};
    }
    if ((call.dwFlags & BCRYPT_PAD_PKCS1) != 0)
        return {BCRYPT_PAD_PKCS1, nullptr, 11};
    return {BCRYPT_PAD_NONE, nullptr, 0};
}

// BCrypt wants as many bytes as the modulus has when it does not pad.
Bytes inputOf(const CipherCall& call, const CipherPadding& padding, size_t modulusSize)
{
    Bytes input(padding.flag == BCRYPT_PAD_NONE ? modulusSize - call.cbInput : 0);
    input.insert(input.end(), call.pbInput, call.pbInput + call.cbInput);
    return input;
}

std::optional<SECURITY_STATUS> encryptionStatus(NTSTATUS result)
{
    switch (result) {
    case ntSuccess:
        return ERROR_SUCCESS;
    case ntInvalidParameter:
        return NTE_INVALID_PARAMETER;
    case ntNoMemory:
        return NTE_NO_MEMORY;
    default:
        return std::nullopt;
    }
}

std::optional<SECURITY_STATUS> encryptRsa(const P11KeyObject& key, const CipherCall& call)
{
    if (call.pbInput == nullptr && call.cbInput != 0)
        return NTE_INVALID_PARAMETER;
    const BCryptKey publicKey = rsaKey(key);
    if (publicKey.get() == nullptr)
        return std::nullopt;
    const size_t modulusSize = key.signatureLength();
    const CipherPadding padding = cipherPadding(call);
    if (modulusSize < padding.size || call.cbInput > modulusSize - padding.size)
        return NTE_BAD_LEN;
    Bytes input = inputOf(call, padding, modulusSize);
    ULONG length = 0;
    const auto status = encryptionStatus(
        BCryptEncrypt(publicKey.get(), input.data(), static_cast<ULONG>(input.size()), padding.info,
                      nullptr, 0, call.pbOutput, call.cbOutput, &length, padding.flag));
    if (status == ERROR_SUCCESS)
        *call.pcbResult = length;
    return status;
}

template <typename Work>
std::optional<SECURITY_STATUS> traced(const Site& operation, const char* what, const Work& work)
{
    NV_UNDER(TRC, operation, "Try to %s by the public key, without the token", what);
    const std::optional<SECURITY_STATUS> status = work();
    if (!status)
        NV_UNDER(ERR, operation, "BCrypt cannot %s with this key and padding", what);
    else if (*status != ERROR_SUCCESS)
        NV_UNDER(ERR, operation, "Failed to %s by the public key (0x%08x)", what,
                 static_cast<unsigned>(*status));
    else
        NV_UNDER(TRC, operation, "Success to %s by the public key", what);
    return status;
}

}  // namespace

bool needsCertificateKey(const TokenFailure& failure)
{
    return failure.withholdsKey() && mode().usesCertificateKeys();
}

std::optional<SECURITY_STATUS> verifyWithoutToken(const Site& operation, const P11KeyObject& key,
                                                  const SignatureCall& call)
{
    return traced(operation, "verify", [&]() -> std::optional<SECURITY_STATUS> {
        if (!isRsa(key))
            return verifyEc(key, call);
        const BCryptKey publicKey = rsaKey(key);
        if (publicKey.get() == nullptr)
            return std::nullopt;
        return verifyRsa(publicKey, call);
    });
}

std::optional<SECURITY_STATUS> encryptWithoutToken(const Site& operation, const P11KeyObject& key,
                                                   const CipherCall& call)
{
    return traced(operation, "encrypt", [&] { return encryptRsa(key, call); });
}

}  // namespace NV
