// The operations through the module's table.

#include "token_work.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "config/mode.h"
#include "peer_key.h"

namespace NV::test {

namespace {

constexpr SECURITY_STATUS success = ERROR_SUCCESS;
constexpr DWORD modulusSize = 256;
constexpr DWORD ecSignatureSize = 64;

// CNG takes input by a pointer to non-const.
PBYTE in(const Bytes& bytes)
{
    return const_cast<PBYTE>(bytes.data());
}

DWORD sizeOf(const Bytes& bytes)
{
    return static_cast<DWORD>(bytes.size());
}

template <typename Record>
Bytes bytesOf(const Record& record)
{
    const auto* begin = reinterpret_cast<const unsigned char*>(&record);
    return {begin, begin + sizeof record};
}

NCRYPT_KEY_HANDLE openKey(const ProviderModule& module, NCRYPT_PROV_HANDLE provider,
                          const std::wstring& name)
{
    NCRYPT_KEY_HANDLE key = 0;
    const SECURITY_STATUS status = module->OpenKey(provider, &key, name.c_str(), 0, 0);
    return status == success ? key : 0;
}

NCRYPT_KEY_HANDLE importPeer(const ProviderModule& module, NCRYPT_PROV_HANDLE provider,
                             const Bytes& coordinates)
{
    const Bytes blob = joinedBytes({blobHeader(ecdhP256, 32), coordinates});
    NCRYPT_KEY_HANDLE key = 0;
    const SECURITY_STATUS status = module->ImportKey(provider, 0, BCRYPT_ECCPUBLIC_BLOB, nullptr,
                                                     &key, in(blob), sizeOf(blob), 0);
    return status == success ? key : 0;
}

// A property through the provider's or a key's function; nothing when that fails.
template <typename Get>
Bytes property(const Get& get)
{
    Bytes value(200);
    DWORD length = 0;
    if (get(value.data(), sizeOf(value), &length) != success)
        return {};
    value.resize(length);
    return value;
}

// DeriveKey's SHA256 with these parameters; nothing when that fails.
Bytes derived(const ProviderModule& module, NCRYPT_PROV_HANDLE provider,
              NCRYPT_SECRET_HANDLE secret, const wchar_t* kdf, const KnownResults& known)
{
    wchar_t hashName[] = L"SHA256";
    const bool hmac = std::wstring_view(kdf) == BCRYPT_KDF_HMAC;
    std::array<BCryptBuffer, 3> buffers{
        {{sizeof hashName, KDF_HASH_ALGORITHM, hashName},
         {sizeOf(known.prepend), KDF_SECRET_PREPEND, in(known.prepend)},
         {sizeOf(known.hmacKey), KDF_HMAC_KEY, in(known.hmacKey)}}};
    NCryptBufferDesc list{0, hmac ? ULONG{3} : ULONG{2}, buffers.data()};
    Bytes key(32, 0xEE);
    DWORD length = 0;
    const SECURITY_STATUS status =
        module->DeriveKey(provider, secret, kdf, &list, key.data(), sizeOf(key), &length, 0);
    return status == success && length == key.size() ? key : Bytes{};
}

}  // namespace

PublicWork::PublicWork(const ProviderModule& module, NCRYPT_PROV_HANDLE provider,
                       const TokenFacts& facts, NCRYPT_SECRET_HANDLE secret)
    : module_(module), provider_(provider), facts_(facts), secret_(secret),
      rsa_(openKey(module, provider, facts.rsaKey)), ec_(openKey(module, provider, facts.ecKey))
{
}

PublicWork::~PublicWork()
{
    module_->FreeKey(provider_, rsa_);
    module_->FreeKey(provider_, ec_);
}

std::span<const PublicWork::Kind> PublicWork::kinds()
{
    static constexpr Kind all[] = {
        {"verify", &PublicWork::verify},
        {"refuse", &PublicWork::refuse},
        {"encrypt", &PublicWork::encrypt},
        {"ask for lengths", &PublicWork::askForLengths},
        {"derive a digest", &PublicWork::deriveDigest},
        {"derive an HMAC", &PublicWork::deriveHmac},
        {"open and free a key", &PublicWork::openAndFreeKey},
        {"read the provider's properties", &PublicWork::readProviderProperties},
        {"read a key's properties", &PublicWork::readKeyProperties},
        {"set properties", &PublicWork::setProperties},
        {"import and export", &PublicWork::importAndExport},
        {"ask for algorithms", &PublicWork::askForAlgorithms},
        {"enumerate keys", &PublicWork::enumerateKeys, 2},
        {"enumerate algorithms", &PublicWork::enumerateAlgorithms, 1},
    };
    return all;
}

SECURITY_STATUS PublicWork::verifyWith(NCRYPT_KEY_HANDLE key, const Bytes& hash,
                                       const Bytes& signature) const
{
    return module_->VerifySignature(provider_, key, nullptr, in(hash), sizeOf(hash), in(signature),
                                    sizeOf(signature), 0);
}

bool PublicWork::verify(const KnownResults& known) const
{
    return verifyWith(rsa_, known.hash, known.rsaSignature) == success &&
           verifyWith(ec_, known.hash, known.ecSignature) == success;
}

bool PublicWork::refuse(const KnownResults& known) const
{
    Bytes hash = known.hash;
    hash.back() ^= 1;
    const SECURITY_STATUS refusal =
        mode().verifiesAsItSigns() ? NTE_BAD_SIGNATURE : NTE_INTERNAL_ERROR;
    return verifyWith(rsa_, hash, known.rsaSignature) == refusal &&
           verifyWith(ec_, hash, known.ecSignature) == refusal;
}

bool PublicWork::encrypt(const KnownResults& known) const
{
    Bytes cipher(modulusSize);
    DWORD length = 0;
    const SECURITY_STATUS status =
        module_->Encrypt(provider_, rsa_, in(known.plain), sizeOf(known.plain), nullptr,
                         cipher.data(), sizeOf(cipher), &length, BCRYPT_PAD_NONE);
    return status == success && length == modulusSize && cipher == known.cipher;
}

bool PublicWork::askForLengths(const KnownResults& known) const
{
    const auto signatureLength = [&](NCRYPT_KEY_HANDLE key) {
        DWORD length = 0;
        const SECURITY_STATUS status = module_->SignHash(
            provider_, key, nullptr, in(known.hash), sizeOf(known.hash), nullptr, 0, &length, 0);
        return status == success ? length : 0;
    };
    DWORD cipherLength = 0;
    const SECURITY_STATUS status =
        module_->Encrypt(provider_, rsa_, in(known.plain), sizeOf(known.plain), nullptr, nullptr, 0,
                         &cipherLength, BCRYPT_PAD_NONE);
    return signatureLength(rsa_) == modulusSize && signatureLength(ec_) == ecSignatureSize &&
           status == success && cipherLength == modulusSize;
}

bool PublicWork::derives(const KnownResults& known, const wchar_t* kdf, const Bytes& expected) const
{
    return derived(module_, provider_, secret_, kdf, known) == expected;
}

bool PublicWork::deriveDigest(const KnownResults& known) const
{
    return derives(known, BCRYPT_KDF_HASH, known.digest);
}

bool PublicWork::deriveHmac(const KnownResults& known) const
{
    return derives(known, BCRYPT_KDF_HMAC, known.hmac);
}

Bytes PublicWork::exported(NCRYPT_KEY_HANDLE key, const wchar_t* type) const
{
    Bytes blob(600);
    DWORD length = 0;
    const SECURITY_STATUS status =
        module_->ExportKey(provider_, key, 0, type, nullptr, blob.data(), sizeOf(blob), &length, 0);
    blob.resize(status == success ? length : 0);
    return blob;
}

bool PublicWork::openAndFreeKey(const KnownResults&) const
{
    const NCRYPT_KEY_HANDLE key = openKey(module_, provider_, facts_.spareKey);
    const Bytes blob = exported(key, BCRYPT_RSAPUBLIC_BLOB);
    return key != 0 && blob.size() > sizeof(BCRYPT_RSAKEY_BLOB) &&
           module_->FreeKey(provider_, key) == success;
}

bool PublicWork::readProviderProperties(const KnownResults&) const
{
    const auto read = [&](const wchar_t* name) {
        return property([&](PBYTE value, DWORD size, DWORD* length) {
            return module_->GetProviderProperty(provider_, name, value, size, length, 0);
        });
    };
    return read(NCRYPT_VERSION_PROPERTY) == bytesOf(L"1.0") &&
           read(NCRYPT_NAME_PROPERTY) == bytesOf(L"Norvanta Software KeyStore Provider");
}

bool PublicWork::readKeyProperties(const KnownResults&) const
{
    const auto read = [&](NCRYPT_KEY_HANDLE key, const wchar_t* name) {
        return property([&](PBYTE value, DWORD size, DWORD* length) {
            return module_->GetKeyProperty(provider_, key, name, value, size, length, 0);
        });
    };
    return read(rsa_, NCRYPT_ALGORITHM_PROPERTY) == bytesOf(L"RSA") &&
           read(ec_, NCRYPT_ALGORITHM_PROPERTY) == bytesOf(L"ECDSA_P256") &&
           read(ec_, NCRYPT_IMPL_TYPE_PROPERTY) == bytesOf(DWORD{NCRYPT_IMPL_HARDWARE_FLAG});
}

bool PublicWork::setProperties(const KnownResults& known) const
{
    NCRYPT_KEY_HANDLE key = openKey(module_, provider_, facts_.spareKey);
    const SECURITY_STATUS ofKey = module_->SetKeyProperty(provider_, key, L"Odd Property",
                                                          in(known.hash), sizeOf(known.hash), 0);
    const Bytes value = property([&](PBYTE bytes, DWORD size, DWORD* length) {
        return module_->GetKeyProperty(provider_, key, L"Odd Property", bytes, size, length, 0);
    });
    Bytes owner(sizeof(ULONG_PTR));  // a null handle
    const SECURITY_STATUS ofProvider = module_->SetProviderProperty(
        provider_, NCRYPT_WINDOW_HANDLE_PROPERTY, owner.data(), sizeOf(owner), 0);
    return ofKey == success && value == known.hash && ofProvider == success &&
           module_->FreeKey(provider_, key) == success;
}

bool PublicWork::importAndExport(const KnownResults& known) const
{
    // The provider looks at the length of coordinates only.
    const Bytes coordinates = joinedBytes({known.hash, known.hash});
    const NCRYPT_KEY_HANDLE key = importPeer(module_, provider_, coordinates);
    const Bytes blob = exported(key, BCRYPT_ECCPUBLIC_BLOB);
    return key != 0 && blob.size() == sizeof(BCRYPT_ECCKEY_BLOB) + coordinates.size() &&
           std::equal(coordinates.begin(), coordinates.end(),
                      blob.begin() + sizeof(BCRYPT_ECCKEY_BLOB)) &&
           module_->FreeKey(provider_, key) == success;
}

bool PublicWork::askForAlgorithms(const KnownResults&) const
{
    return module_->IsAlgSupported(provider_, L"RSA", 0) == success &&
           module_->IsAlgSupported(provider_, L"ECDH_P521", 0) == success &&
           module_->IsAlgSupported(provider_, L"DSA", 0) == NTE_NOT_SUPPORTED;
}

bool PublicWork::enumerateKeys(const KnownResults&) const
{
    std::vector<std::wstring> names;
    void* state = nullptr;
    NCryptKeyName* record = nullptr;
    SECURITY_STATUS status = success;
    while ((status = module_->EnumKeys(provider_, nullptr, &record, &state, 0)) == success) {
        names.emplace_back(record->pszName);
        module_->FreeBuffer(record);
    }
    module_->FreeBuffer(state);
    return status == NTE_NO_MORE_ITEMS && names == facts_.names;
}

bool PublicWork::enumerateAlgorithms(const KnownResults&) const
{
    DWORD count = 0;
    NCryptAlgorithmName* list = nullptr;
    const SECURITY_STATUS status = module_->EnumAlgorithms(
        provider_, NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION, &count, &list, 0);
    const DWORD expected = mode().listsKeyAlgorithms() ? 1 : 2;
    const bool right = status == success && count == expected &&
                       std::wstring_view(list[0].pszName) == L"RSA" &&
                       (count == 1 || std::wstring_view(list[1].pszName) == L"ECDSA");
    return right && module_->FreeBuffer(list) == success;
}

DialogWork::DialogWork(const ProviderModule& module, NCRYPT_PROV_HANDLE provider,
                       const TokenFacts& facts)
    : module_(module), provider_(provider), facts_(facts),
      rsa_(openKey(module, provider, facts.rsaKey)), ec_(openKey(module, provider, facts.ecKey))
{
}

DialogWork::~DialogWork()
{
    module_->FreeKey(provider_, rsa_);
    module_->FreeKey(provider_, ec_);
}

std::span<const DialogWork::Kind> DialogWork::kinds()
{
    static constexpr Kind all[] = {{"sign with RSA", &DialogWork::signRsa},
                                   {"sign with EC", &DialogWork::signEc},
                                   {"decrypt", &DialogWork::decrypt},
                                   {"agree", &DialogWork::agree}};
    return all;
}

bool DialogWork::signRsa(const KnownResults& known) const
{
    Bytes signature(modulusSize);
    DWORD length = 0;
    const SECURITY_STATUS status =
        module_->SignHash(provider_, rsa_, nullptr, in(known.hash), sizeOf(known.hash),
                          signature.data(), sizeOf(signature), &length, 0);
    return status == success && length == modulusSize && signature == known.rsaSignature;
}

// By the token's own judgement: a signature on a curve is another one each time.
bool DialogWork::signEc(const KnownResults& known) const
{
    Bytes signature(ecSignatureSize);
    DWORD length = 0;
    const SECURITY_STATUS status =
        module_->SignHash(provider_, ec_, nullptr, in(known.hash), sizeOf(known.hash),
                          signature.data(), sizeOf(signature), &length, 0);
    return status == success && length == ecSignatureSize &&
           module_->VerifySignature(provider_, ec_, nullptr, in(known.hash), sizeOf(known.hash),
                                    signature.data(), sizeOf(signature), 0) == success;
}

bool DialogWork::decrypt(const KnownResults& known) const
{
    Bytes plain(modulusSize);
    DWORD length = 0;
    const SECURITY_STATUS status =
        module_->Decrypt(provider_, rsa_, in(known.cipher), sizeOf(known.cipher), nullptr,
                         plain.data(), sizeOf(plain), &length, BCRYPT_PAD_NONE);
    plain.resize(std::min<size_t>(length, plain.size()));
    return status == success && plain == known.plain;
}

NCRYPT_SECRET_HANDLE DialogWork::agreed() const
{
    const NCRYPT_KEY_HANDLE peer = importPeer(module_, provider_, facts_.peer);
    NCRYPT_SECRET_HANDLE secret = 0;
    const SECURITY_STATUS status = module_->SecretAgreement(provider_, ec_, peer, &secret, 0);
    module_->FreeKey(provider_, peer);
    return status == success ? secret : 0;
}

bool DialogWork::agree(const KnownResults& known) const
{
    const NCRYPT_SECRET_HANDLE secret = agreed();
    const bool right = derived(module_, provider_, secret, BCRYPT_KDF_HASH, known) == known.digest;
    return module_->FreeSecret(provider_, secret) == success && right;
}

namespace {

NCRYPT_SECRET_HANDLE agreedByDialog(const DialogWork& work, const TokenFacts& facts)
{
    const DialogDriver user(DialogDriver::entering(facts.pin));
    return work.agreed();
}

}  // namespace

AgreedByDialog::AgreedByDialog(const ProviderModule& module, NCRYPT_PROV_HANDLE provider,
                               const TokenFacts& facts)
    : module_(module), provider_(provider), work_(module, provider, facts),
      handle_(agreedByDialog(work_, facts))
{
}

AgreedByDialog::~AgreedByDialog()
{
    module_->FreeSecret(provider_, handle_);
}

}  // namespace NV::test
