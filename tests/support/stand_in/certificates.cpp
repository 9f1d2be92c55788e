// Certificates, by OpenSSL.

#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <windows.h>

#include <atomic>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "certificates.h"
#include "freer.h"
#include "last_error.h"

namespace NV::stand_in {

namespace {

using X509Certificate = std::unique_ptr<X509, Freer<&X509_free>>;
using PublicKey = std::unique_ptr<EVP_PKEY, Freer<&EVP_PKEY_free>>;
using BasicConstraints = std::unique_ptr<BASIC_CONSTRAINTS, Freer<&BASIC_CONSTRAINTS_free>>;
using Identifier = std::unique_ptr<ASN1_OBJECT, Freer<&ASN1_OBJECT_free>>;

std::string textOf(const ASN1_OBJECT* identifier)
{
    char text[128];
    const int length = OBJ_obj2txt(text, sizeof text, identifier, 1);
    return length > 0 ? text : "";
}

// The DER encoding of an algorithm's parameters; empty without any.
std::vector<BYTE> encodedParameters(const X509_ALGOR* algorithm)
{
    int type = 0;
    const void* value = nullptr;
    X509_ALGOR_get0(nullptr, &type, &value, algorithm);
    if (type == V_ASN1_UNDEF)
        return {};
    ASN1_TYPE* parameter = algorithm->parameter;
    std::vector<BYTE> der(static_cast<size_t>(i2d_ASN1_TYPE(parameter, nullptr)));
    BYTE* end = der.data();
    i2d_ASN1_TYPE(parameter, &end);
    return der;
}

X509Certificate decoded(const BYTE* der, DWORD size)
{
    const BYTE* end = der;
    X509Certificate certificate(d2i_X509(nullptr, &end, size));
    return certificate != nullptr && end == der + size ? std::move(certificate) : nullptr;
}

CRYPT_DATA_BLOB blobOf(std::vector<BYTE>& bytes)
{
    return {static_cast<DWORD>(bytes.size()), bytes.data()};
}

struct KeyInfo {
    std::string algorithm;
    std::vector<BYTE> parameters;
    std::vector<BYTE> publicKey;
    std::vector<Extension> extensions;
};

std::vector<Extension> readExtensions(const X509* certificate)
{
    std::vector<Extension> extensions;
    for (int i = 0; i < X509_get_ext_count(certificate); ++i) {
        X509_EXTENSION* const extension = X509_get_ext(certificate, i);
        const ASN1_OCTET_STRING* const value = X509_EXTENSION_get_data(extension);
        const BYTE* const begin = ASN1_STRING_get0_data(value);
        extensions.push_back({textOf(X509_EXTENSION_get_object(extension)),
                              X509_EXTENSION_get_critical(extension) != 0,
                              {begin, begin + ASN1_STRING_length(value)}});
    }
    return extensions;
}

std::optional<KeyInfo> readKeyInfo(const std::vector<BYTE>& der)
{
    const X509Certificate certificate = decoded(der.data(), static_cast<DWORD>(der.size()));
    if (certificate == nullptr)
        return std::nullopt;
    X509_PUBKEY* const key = X509_get_X509_PUBKEY(certificate.get());
    ASN1_OBJECT* algorithm = nullptr;
    const BYTE* bits = nullptr;
    int bitsSize = 0;
    X509_ALGOR* identifier = nullptr;
    X509_PUBKEY_get0_param(&algorithm, &bits, &bitsSize, &identifier, key);
    return KeyInfo{textOf(algorithm),
                   encodedParameters(identifier),
                   {bits, bits + bitsSize},
                   readExtensions(certificate.get())};
}

bool keysAreKept = false;

// Nothing if the bytes are not a certificate.
std::optional<KeyInfo> keyInfoOf(const std::vector<BYTE>& der)
{
    if (!keysAreKept)
        return readKeyInfo(der);
    static std::mutex lock;
    static std::map<std::vector<BYTE>, KeyInfo> known;
    const std::lock_guard guard(lock);
    if (const auto entry = known.find(der); entry != known.end())
        return entry->second;
    std::optional<KeyInfo> info = readKeyInfo(der);
    if (info)
        known.emplace(der, *info);
    return info;
}

}  // namespace

void keepDecodedKeys()
{
    keysAreKept = true;
}

Certificate::Certificate(const BYTE* der, DWORD size) : der_(der, der + size) {}

bool Certificate::read()
{
    const std::optional<KeyInfo> key = keyInfoOf(der_);
    if (!key)
        return false;
    algorithm_ = key->algorithm;
    parameters_ = key->parameters;
    publicKey_ = key->publicKey;
    extensions_ = key->extensions;
    for (Extension& extension : extensions_)
        extensionRecords_.push_back({extension.identifier.data(), extension.critical ? TRUE : FALSE,
                                     blobOf(extension.value)});
    info_ = {{{algorithm_.data(), blobOf(parameters_)},
              {static_cast<DWORD>(publicKey_.size()), publicKey_.data(), 0}},
             static_cast<DWORD>(extensionRecords_.size()),
             extensionRecords_.data()};
    context_ = {X509_ASN_ENCODING, der_.data(), static_cast<DWORD>(der_.size()), &info_, nullptr};
    return true;
}

void Certificate::release()
{
    if (--references_ == 0) {
        const std::unique_ptr<Certificate> owned(this);
    }
}

void Certificate::setProviderInfo(const CRYPT_KEY_PROV_INFO& info)
{
    const std::lock_guard guard(lock_);
    provider_ = {info.pwszContainerName, info.pwszProvName, info.dwKeySpec};
}

std::optional<ProviderInfo> Certificate::providerInfo() const
{
    const std::lock_guard guard(lock_);
    return provider_;
}

Certificate* certificateOf(PCCERT_CONTEXT context)
{
    // The context is the first member of a Certificate.
    return reinterpret_cast<Certificate*>(const_cast<CERT_CONTEXT*>(context));
}

namespace {

// The result of a function that fills a buffer: first the length, then the bytes.
BOOL give(const std::vector<BYTE>& bytes, void* buffer, DWORD* size)
{
    const DWORD capacity = *size;
    *size = static_cast<DWORD>(bytes.size());
    if (buffer == nullptr)
        return TRUE;
    if (capacity < bytes.size())
        return failed(ERROR_MORE_DATA);
    std::memcpy(buffer, bytes.data(), bytes.size());
    return TRUE;
}

// A text behind a pointer to it, as CryptDecodeObject places it.
BOOL giveIdentifier(const BYTE* der, DWORD size, void* buffer, DWORD* bufferSize)
{
    const BYTE* end = der;
    const Identifier identifier(d2i_ASN1_OBJECT(nullptr, &end, size));
    if (identifier == nullptr)
        return failed(ERROR_INVALID_PARAMETER);
    const std::string text = textOf(identifier.get());
    std::vector<BYTE> bytes(sizeof(LPSTR) + text.size() + 1);
    char* const place = buffer != nullptr ? static_cast<LPSTR>(buffer) + sizeof(LPSTR) : nullptr;
    std::memcpy(bytes.data(), &place, sizeof place);
    std::memcpy(bytes.data() + sizeof place, text.c_str(), text.size() + 1);
    return give(bytes, buffer, bufferSize);
}

// Big-endian.
struct RsaNumbers {
    std::vector<BYTE> modulus;
    std::vector<BYTE> exponent;
};

std::vector<BYTE> bytesOf(const BIGNUM* number)
{
    std::vector<BYTE> bytes(static_cast<size_t>(BN_num_bytes(number)));
    BN_bn2bin(number, bytes.data());
    return bytes;
}

// SEQUENCE { modulus, exponent }, as PKCS #1 defines it.
std::optional<RsaNumbers> readRsaKey(const BYTE* der, DWORD size)
{
    const BYTE* end = der;
    const PublicKey key(d2i_PublicKey(EVP_PKEY_RSA, nullptr, &end, size));
    if (key == nullptr)
        return std::nullopt;
    BIGNUM* modulus = nullptr;
    BIGNUM* exponent = nullptr;
    EVP_PKEY_get_bn_param(key.get(), "n", &modulus);
    EVP_PKEY_get_bn_param(key.get(), "e", &exponent);
    const std::unique_ptr<BIGNUM, Freer<&BN_free>> ownedModulus(modulus);
    const std::unique_ptr<BIGNUM, Freer<&BN_free>> ownedExponent(exponent);
    return RsaNumbers{bytesOf(modulus), bytesOf(exponent)};
}

BOOL giveCngRsaBlob(const BYTE* der, DWORD size, void* buffer, DWORD* bufferSize)
{
    const auto numbers = readRsaKey(der, size);
    if (!numbers)
        return failed(ERROR_INVALID_PARAMETER);
    const auto& [modulus, exponent] = *numbers;
    // The length is that of whole bytes.
    const BCRYPT_RSAKEY_BLOB head{BCRYPT_RSAPUBLIC_MAGIC,
                                  static_cast<ULONG>(8 * modulus.size()),
                                  static_cast<ULONG>(exponent.size()),
                                  static_cast<ULONG>(modulus.size()),
                                  0,
                                  0};
    std::vector<BYTE> bytes(sizeof head);
    std::memcpy(bytes.data(), &head, sizeof head);
    bytes.insert(bytes.end(), exponent.begin(), exponent.end());
    bytes.insert(bytes.end(), modulus.begin(), modulus.end());
    return give(bytes, buffer, bufferSize);
}

BOOL giveBasicConstraints(const BYTE* der, DWORD size, void* buffer, DWORD* bufferSize)
{
    const BYTE* end = der;
    const BasicConstraints constraints(d2i_BASIC_CONSTRAINTS(nullptr, &end, size));
    if (constraints == nullptr)
        return failed(ERROR_INVALID_PARAMETER);
    const bool limited = constraints->pathlen != nullptr;
    const CERT_BASIC_CONSTRAINTS2_INFO info{
        constraints->ca != 0 ? TRUE : FALSE, limited ? TRUE : FALSE,
        limited ? static_cast<DWORD>(ASN1_INTEGER_get(constraints->pathlen)) : 0};
    std::vector<BYTE> bytes(sizeof info);
    std::memcpy(bytes.data(), &info, sizeof info);
    return give(bytes, buffer, bufferSize);
}

BOOL giveRsaBlob(const BYTE* der, DWORD size, void* buffer, DWORD* bufferSize)
{
    const auto numbers = readRsaKey(der, size);
    if (!numbers)
        return failed(ERROR_INVALID_PARAMETER);
    constexpr BYTE publicKeyBlob = 6;
    constexpr BYTE blobVersion = 2;
    constexpr uint32_t rsaKeyExchange = 0xA400;
    constexpr DWORD rsa1 = 0x31415352;
    const BLOBHEADER head{publicKeyBlob, blobVersion, 0, rsaKeyExchange};
    const auto bits = static_cast<DWORD>(8 * numbers->modulus.size());
    DWORD exponent = 0;
    for (const BYTE byte : numbers->exponent)
        exponent = exponent << 8 | byte;
    const RSAPUBKEY key{rsa1, bits, exponent};
    std::vector<BYTE> bytes(sizeof head + sizeof key);
    std::memcpy(bytes.data(), &head, sizeof head);
    std::memcpy(bytes.data() + sizeof head, &key, sizeof key);
    bytes.insert(bytes.end(), numbers->modulus.rbegin(), numbers->modulus.rend());
    return give(bytes, buffer, bufferSize);
}

}  // namespace

}  // namespace NV::stand_in

using namespace NV::stand_in;  // the definitions below are functions of Windows

PCCERT_CONTEXT CertCreateCertificateContext(DWORD, const BYTE* der, DWORD size)
{
    auto certificate = std::make_unique<Certificate>(der, size);
    if (!certificate->read()) {
        failed(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return certificate.release()->context();
}

BOOL CertFreeCertificateContext(PCCERT_CONTEXT context)
{
    if (context != nullptr)
        certificateOf(context)->release();
    return TRUE;
}

BOOL CertGetCertificateContextProperty(PCCERT_CONTEXT context, DWORD property, void* value,
                                       DWORD* size)
{
    const auto provider = certificateOf(context)->providerInfo();
    if (property != CERT_KEY_PROV_INFO_PROP_ID || !provider)
        return failed(ERROR_INVALID_PARAMETER);
    const size_t containerSize = (provider->container.size() + 1) * sizeof(wchar_t);
    const size_t nameSize = (provider->name.size() + 1) * sizeof(wchar_t);
    std::vector<BYTE> bytes(sizeof(CRYPT_KEY_PROV_INFO) + containerSize + nameSize);
    CRYPT_KEY_PROV_INFO info{};
    if (value != nullptr) {
        auto* const texts = static_cast<BYTE*>(value) + sizeof info;
        info.pwszContainerName = reinterpret_cast<LPWSTR>(texts);
        info.pwszProvName = reinterpret_cast<LPWSTR>(texts + containerSize);
    }
    info.dwKeySpec = provider->keySpec;
    std::memcpy(bytes.data(), &info, sizeof info);
    std::memcpy(bytes.data() + sizeof info, provider->container.c_str(), containerSize);
    std::memcpy(bytes.data() + sizeof info + containerSize, provider->name.c_str(), nameSize);
    return give(bytes, value, size);
}

DWORD CertGetPublicKeyLength(DWORD, CERT_PUBLIC_KEY_INFO* key)
{
    const auto numbers = readRsaKey(key->PublicKey.pbData, key->PublicKey.cbData);
    return numbers ? static_cast<DWORD>(8 * numbers->modulus.size()) : 0;
}

CERT_EXTENSION* CertFindExtension(LPCSTR identifier, DWORD count, CERT_EXTENSION* extensions)
{
    for (DWORD i = 0; i < count; ++i) {
        if (std::strcmp(extensions[i].pszObjId, identifier) == 0)
            return &extensions[i];
    }
    return nullptr;
}

BOOL CryptDecodeObject(DWORD, LPCSTR type, const BYTE* bytes, DWORD size, DWORD, void* structure,
                       DWORD* structureSize)
{
    if (type == X509_OBJECT_IDENTIFIER)
        return giveIdentifier(bytes, size, structure, structureSize);
    if (type == RSA_CSP_PUBLICKEYBLOB)
        return giveRsaBlob(bytes, size, structure, structureSize);
    if (type == CNG_RSA_PUBLIC_KEY_BLOB)
        return giveCngRsaBlob(bytes, size, structure, structureSize);
    if (type == X509_BASIC_CONSTRAINTS2)
        return giveBasicConstraints(bytes, size, structure, structureSize);
    return failed(ERROR_FILE_NOT_FOUND);
}
