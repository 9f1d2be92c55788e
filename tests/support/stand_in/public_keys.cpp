// BCrypt's public keys, by OpenSSL.

#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>
#include <windows.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "freer.h"

namespace NV::stand_in {

namespace {

using PublicKey = std::unique_ptr<EVP_PKEY, Freer<&EVP_PKEY_free>>;
using Context = std::unique_ptr<EVP_PKEY_CTX, Freer<&EVP_PKEY_CTX_free>>;
using Number = std::unique_ptr<BIGNUM, Freer<&BN_free>>;
using Builder = std::unique_ptr<OSSL_PARAM_BLD, Freer<&OSSL_PARAM_BLD_free>>;
using Parameters = std::unique_ptr<OSSL_PARAM, Freer<&OSSL_PARAM_free>>;
using Signature = std::unique_ptr<ECDSA_SIG, Freer<&ECDSA_SIG_free>>;

constexpr NTSTATUS success = 0;
constexpr auto invalidHandle = static_cast<NTSTATUS>(0xC0000008);
constexpr auto invalidParameter = static_cast<NTSTATUS>(0xC000000D);
constexpr auto bufferTooSmall = static_cast<NTSTATUS>(0xC0000023);
constexpr auto notSupported = static_cast<NTSTATUS>(0xC00000BB);
constexpr auto notFound = static_cast<NTSTATUS>(0xC0000225);
constexpr auto invalidSignature = static_cast<NTSTATUS>(0xC000A000);

struct Algorithm {
    std::wstring_view name;
    ULONG magic;
    const char* group;  // null: RSA
};

constexpr Algorithm algorithms[] = {
    {BCRYPT_RSA_ALGORITHM, BCRYPT_RSAPUBLIC_MAGIC, nullptr},
    {L"ECDSA_P256", BCRYPT_ECDSA_PUBLIC_P256_MAGIC, "P-256"},
    {L"ECDSA_P384", BCRYPT_ECDSA_PUBLIC_P384_MAGIC, "P-384"},
    {L"ECDSA_P521", BCRYPT_ECDSA_PUBLIC_P521_MAGIC, "P-521"},
};

const EVP_MD* hashOf(const wchar_t* name)
{
    constexpr std::wstring_view names[] = {L"MD5", L"SHA1", L"SHA256", L"SHA384", L"SHA512"};
    const EVP_MD* const hashes[] = {EVP_md5(), EVP_sha1(), EVP_sha256(), EVP_sha384(),
                                    EVP_sha512()};
    const auto* found = std::ranges::find(names, std::wstring_view(name != nullptr ? name : L""));
    return found != std::end(names) ? hashes[found - std::begin(names)] : nullptr;
}

PublicKey made(const char* type, OSSL_PARAM_BLD* builder)
{
    const Parameters parameters(OSSL_PARAM_BLD_to_param(builder));
    const Context context(EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr));
    EVP_PKEY* key = nullptr;
    EVP_PKEY_fromdata_init(context.get());
    EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, parameters.get());
    return PublicKey(key);
}

PublicKey rsaKey(const BYTE* blob, ULONG size)
{
    BCRYPT_RSAKEY_BLOB head{};
    std::memcpy(&head, blob, std::min<size_t>(size, sizeof head));
    if (head.Magic != BCRYPT_RSAPUBLIC_MAGIC ||
        size != sizeof head + uint64_t{head.cbPublicExp} + head.cbModulus)
        return nullptr;
    const BYTE* numbers = blob + sizeof head;
    const Number exponent(BN_bin2bn(numbers, static_cast<int>(head.cbPublicExp), nullptr));
    const Number modulus(
        BN_bin2bn(numbers + head.cbPublicExp, static_cast<int>(head.cbModulus), nullptr));
    const Builder builder(OSSL_PARAM_BLD_new());
    OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_N, modulus.get());
    OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_E, exponent.get());
    return made("RSA", builder.get());
}

PublicKey ecKey(const Algorithm& algorithm, const BYTE* blob, ULONG size)
{
    BCRYPT_ECCKEY_BLOB head{};
    std::memcpy(&head, blob, std::min<size_t>(size, sizeof head));
    if (head.dwMagic != algorithm.magic || size != sizeof head + 2 * uint64_t{head.cbKey})
        return nullptr;
    std::vector<BYTE> point{4};
    point.insert(point.end(), blob + sizeof head, blob + size);
    const Builder builder(OSSL_PARAM_BLD_new());
    OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, algorithm.group, 0);
    OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(),
                                     point.size());
    return made("EC", builder.get());
}

EVP_PKEY* keyOf(BCRYPT_KEY_HANDLE handle)
{
    return static_cast<EVP_PKEY*>(handle);
}

bool isRsa(EVP_PKEY* key)
{
    return EVP_PKEY_is_a(key, "RSA") == 1;
}

NTSTATUS verdict(EVP_PKEY_CTX* context, const std::vector<BYTE>& signature, const BYTE* hash,
                 ULONG hashSize)
{
    const int result = EVP_PKEY_verify(context, signature.data(), signature.size(), hash, hashSize);
    return result == 1 ? success : invalidSignature;
}

NTSTATUS verifyRsa(EVP_PKEY* key, void* padding, const BYTE* hash, ULONG hashSize,
                   const std::vector<BYTE>& signature, ULONG flags)
{
    const bool pss = flags == BCRYPT_PAD_PSS;
    if (padding == nullptr || (!pss && flags != BCRYPT_PAD_PKCS1))
        return invalidParameter;
    // Both structures begin with the name.
    const auto* name = static_cast<BCRYPT_PKCS1_PADDING_INFO*>(padding)->pszAlgId;
    const EVP_MD* digest = hashOf(name);
    if (digest == nullptr && (pss || name != nullptr))
        return notSupported;
    const Context context(EVP_PKEY_CTX_new(key, nullptr));
    EVP_PKEY_verify_init(context.get());
    EVP_PKEY_CTX_set_rsa_padding(context.get(), pss ? RSA_PKCS1_PSS_PADDING : RSA_PKCS1_PADDING);
    if (digest != nullptr)
        EVP_PKEY_CTX_set_signature_md(context.get(), digest);
    if (pss)
        EVP_PKEY_CTX_set_rsa_pss_saltlen(
            context.get(),
            static_cast<int>(static_cast<BCRYPT_PSS_PADDING_INFO*>(padding)->cbSalt));
    return verdict(context.get(), signature, hash, hashSize);
}

// r followed by s, as the DER that OpenSSL reads.
std::vector<BYTE> derOf(const BYTE* signature, ULONG size)
{
    const auto half = static_cast<int>(size / 2);
    const Signature numbers(ECDSA_SIG_new());
    ECDSA_SIG_set0(numbers.get(), BN_bin2bn(signature, half, nullptr),
                   BN_bin2bn(signature + half, half, nullptr));
    std::vector<BYTE> der(static_cast<size_t>(i2d_ECDSA_SIG(numbers.get(), nullptr)));
    BYTE* end = der.data();
    i2d_ECDSA_SIG(numbers.get(), &end);
    return der;
}

// False for a padding that there is not.
bool setPadding(EVP_PKEY_CTX* context, const void* padding, ULONG flags)
{
    if (flags == BCRYPT_PAD_NONE)
        return EVP_PKEY_CTX_set_rsa_padding(context, RSA_NO_PADDING) == 1;
    if (flags == BCRYPT_PAD_PKCS1)
        return EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PADDING) == 1;
    const auto* oaep = static_cast<const BCRYPT_OAEP_PADDING_INFO*>(padding);
    const EVP_MD* digest = oaep != nullptr ? hashOf(oaep->pszAlgId) : nullptr;
    if (flags != BCRYPT_PAD_OAEP || digest == nullptr)
        return false;
    EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_OAEP_PADDING);
    EVP_PKEY_CTX_set_rsa_oaep_md(context, digest);
    // The context takes the label.
    auto* label = static_cast<BYTE*>(OPENSSL_memdup(oaep->pbLabel, oaep->cbLabel));
    return label == nullptr ||
           EVP_PKEY_CTX_set0_rsa_oaep_label(context, label, static_cast<int>(oaep->cbLabel)) == 1;
}

}  // namespace

}  // namespace NV::stand_in

using namespace NV::stand_in;

NTSTATUS BCryptOpenAlgorithmProvider(BCRYPT_ALG_HANDLE* algorithm, LPCWSTR name, LPCWSTR, ULONG)
{
    const auto* row = std::ranges::find(algorithms, std::wstring_view(name), &Algorithm::name);
    if (row == std::end(algorithms))
        return notFound;
    *algorithm = const_cast<Algorithm*>(row);
    return success;
}

NTSTATUS BCryptCloseAlgorithmProvider(BCRYPT_ALG_HANDLE, ULONG)
{
    return success;
}

NTSTATUS BCryptImportKeyPair(BCRYPT_ALG_HANDLE algorithm, BCRYPT_KEY_HANDLE, LPCWSTR,
                             BCRYPT_KEY_HANDLE* key, PUCHAR blob, ULONG size, ULONG)
{
    if (algorithm == nullptr)
        return invalidHandle;
    const auto& row = *static_cast<const Algorithm*>(algorithm);
    PublicKey made = row.group == nullptr ? rsaKey(blob, size) : ecKey(row, blob, size);
    if (made == nullptr)
        return invalidParameter;
    *key = made.release();
    return success;
}

NTSTATUS BCryptDestroyKey(BCRYPT_KEY_HANDLE key)
{
    EVP_PKEY_free(keyOf(key));
    return success;
}

NTSTATUS BCryptVerifySignature(BCRYPT_KEY_HANDLE key, void* padding, PUCHAR hash, ULONG hashSize,
                               PUCHAR signature, ULONG signatureSize, ULONG flags)
{
    if (isRsa(keyOf(key)))
        return verifyRsa(keyOf(key), padding, hash, hashSize,
                         {signature, signature + signatureSize}, flags);
    const Context context(EVP_PKEY_CTX_new(keyOf(key), nullptr));
    EVP_PKEY_verify_init(context.get());
    return verdict(context.get(), derOf(signature, signatureSize), hash, hashSize);
}

NTSTATUS BCryptEncrypt(BCRYPT_KEY_HANDLE key, PUCHAR input, ULONG inputSize, void* padding, PUCHAR,
                       ULONG, PUCHAR output, ULONG outputSize, ULONG* length, ULONG flags)
{
    *length = static_cast<ULONG>(EVP_PKEY_get_size(keyOf(key)));
    if (!isRsa(keyOf(key)))
        return notSupported;
    if (output == nullptr)
        return success;
    if (outputSize < *length)
        return bufferTooSmall;
    const Context context(EVP_PKEY_CTX_new(keyOf(key), nullptr));
    EVP_PKEY_encrypt_init(context.get());
    if (!setPadding(context.get(), padding, flags))
        return notSupported;
    size_t written = outputSize;
    const int result = EVP_PKEY_encrypt(context.get(), output, &written, input, inputSize);
    return result == 1 ? success : invalidParameter;
}
