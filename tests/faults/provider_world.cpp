// Building the world, and asking it what an operation has left.

#include "provider_world.h"

#include <algorithm>
#include <stdexcept>

#include "configured_library.h"
#include "keystore/keystore_secret.h"
#include "peer_key.h"

namespace NV::test {

namespace {

const Bytes rsaId = {0x01, 0xAB};
const Bytes ecId = {0x02, 0x56};
const Bytes secretBytes = {0x51, 0x52, 0x53};
constexpr CK_ULONG modulusBytes = 256;

void expect(bool right, const char* what)
{
    if (!right)
        throw std::runtime_error(std::string(what) + " does not work without a fault");
}

DWORD sizeOf(const Bytes& bytes)
{
    return static_cast<DWORD>(bytes.size());
}

size_t listedSecrets()
{
    size_t size = 0;
    SecretList::instance().remove(0, size);
    return size;
}

}  // namespace

void ProviderEnd::operator()(Provider* provider) const
{
    if (!registered)
        delete provider;
    else
        ProviderManager::instance().FreeProvider(reinterpret_cast<NCRYPT_PROV_HANDLE>(provider));
}

ProviderWorld::ProviderWorld(Behaviour behaviour, const Table* table)
    : mode_(behaviour), table_(table),
      blob(peerBlob(ecdhP256, 32)), buffers_{{sizeof hashName_, KDF_HASH_ALGORITHM, hashName_},
                                             {sizeof prepended_, KDF_SECRET_PREPEND, prepended_},
                                             {sizeof hmacKey_, KDF_HMAC_KEY, hmacKey_}},
      hashList_{0, 2, buffers_}, hmacList_{0, 3, buffers_}
{
    configureScriptedToken();
    for (unsigned char i = 0; i < 32; ++i)
        hash.push_back(static_cast<unsigned char>(0xA0 + i));
    token.addCertificate(rsaId, fixtureCertificate("rsa2048"));
    token.addCertificate(ecId, fixtureCertificate("p256"));
    token.addRsaKeyPair(rsaId, 8 * modulusBytes);
    token.addEcKeyPair(ecId, 32);
    rsaSignature = signatureOf(CKM_RSA_PKCS, sha256DigestInfo(hash), modulusBytes);
    pssSignature = signatureOf(CKM_RSA_PKCS_PSS, hash, modulusBytes);
    ecSignature = signatureOf(CKM_ECDSA, hash, 64);
    before_ = token.state();
}

ProviderWorld::~ProviderWorld()
{
    close();
}

SECURITY_STATUS ProviderWorld::openRegistered(NCRYPT_PROV_HANDLE* handle)
{
    *handle = 0;
    return table_ != nullptr ? table_->OpenProvider(handle, providerName, 0)
                             : ProviderManager::instance().OpenProvider(handle, providerName, 0);
}

SECURITY_STATUS ProviderWorld::freeRegistered(NCRYPT_PROV_HANDLE handle)
{
    return table_ != nullptr ? table_->FreeProvider(handle)
                             : ProviderManager::instance().FreeProvider(handle);
}

void ProviderWorld::openProvider()
{
    if (table_ == nullptr) {
        provider = std::make_unique<Provider>();
        expect(provider->init(), "opening");
        return;
    }
    NCRYPT_PROV_HANDLE handle = 0;
    expect(openRegistered(&handle) == ERROR_SUCCESS, "opening");
    // The handle of a provider is its address.
    provider = {reinterpret_cast<Provider*>(handle), ProviderEnd(true)};
}

void ProviderWorld::open()
{
    openProvider();
    expect(provider->OpenKey(&rsa, L"01AB", 0, 0) == ERROR_SUCCESS, "OpenKey");
    expect(provider->OpenKey(&ec, L"0256", 0, 0) == ERROR_SUCCESS, "OpenKey");
    expect(provider->ImportKey(0, BCRYPT_ECCPUBLIC_BLOB, nullptr, &peer, blob.data(), sizeOf(blob),
                               0) == ERROR_SUCCESS,
           "ImportKey");
    secret = listSecret();
    if (!cipherText.empty())
        return;
    cipherText.resize(modulusBytes);
    DWORD length = 0;
    expect(provider->Encrypt(rsa, hash.data(), sizeOf(hash), &oaep, cipherText.data(), modulusBytes,
                             &length, BCRYPT_PAD_OAEP) == ERROR_SUCCESS,
           "Encrypt");
}

void ProviderWorld::close()
{
    size_t size = 0;
    SecretList::instance().remove(secret, size);
    secret = 0;
    provider.reset();
    ProviderManager::instance().clear();
}

void ProviderWorld::prepare()
{
    rsaKeyFreed = false;
    out = Outputs(room);
    token.clearCalls();
    before_ = token.state();
    secretsBefore_ = listedSecrets();
}

std::string ProviderWorld::leftOnToken(bool providerOpen) const
{
    const TokenState now = token.state();
    std::string left;
    const bool mayBeInitialized = providerOpen && mode().keepsLibraryInitialized();
    if (now.initialised != 0 && !mayBeInitialized)
        left += "the library is initialised; ";
    if (now.openSessions != 0)
        left += "a session is open; ";
    if (now.userLoggedIn != 0)
        left += "the user is logged in; ";
    if (now.objects != before_.objects)
        left += "a session object is left; ";
    if (now.sessionsFinalized != before_.sessionsFinalized)
        left += "only C_Finalize ended the session; ";
    if (now.loginsFinalized != before_.loginsFinalized)
        left += "only C_Finalize ended the login; ";
    return left;
}

void ProviderWorld::recover()
{
    const bool inUse = provider != nullptr && mode().keepsLibraryInitialized();
    if (token.initialised() && !inUse)
        token.exports().C_Finalize(nullptr);
    token.clearFaults();
    before_ = token.state();
}

NCRYPT_SECRET_HANDLE ProviderWorld::listSecret()
{
    OwnedSecret made = makeSecret(static_cast<uint32_t>(secretBytes.size()));
    std::ranges::copy(secretBytes, made->bytes);
    const auto handle = reinterpret_cast<NCRYPT_SECRET_HANDLE>(made.get());
    SecretList::instance().add(std::move(made));
    return handle;
}

ptrdiff_t ProviderWorld::secretsAdded() const
{
    return static_cast<ptrdiff_t>(listedSecrets()) - static_cast<ptrdiff_t>(secretsBefore_);
}

std::string ProviderWorld::nextOperations()
{
    std::string wrong;
    other_.run([&] {
        try {
            wrong = workedWrong();
        } catch (const std::exception& error) {
            wrong = std::string("the next operation throws ") + error.what() + "; ";
        }
    });
    return wrong;
}

std::string ProviderWorld::workedWrong()
{
    std::string wrong;
    const auto check = [&wrong](bool right, const char* what) {
        if (!right)
            wrong += std::string(what) + "; ";
    };
    Bytes output(room);
    DWORD length = 0;
    const auto gives = [&](const Bytes& expected) {
        return Bytes(output.begin(), output.begin() + std::min<DWORD>(length, room)) == expected;
    };
    Provider& p = *provider;
    constexpr DWORD nameSize = sizeof L"01AB";
    check((rsaKeyFreed && mode().sharesPropertyValues()) ||
              (p.GetKeyProperty(rsa, NCRYPT_NAME_PROPERTY, output.data(), room, &length, 0) ==
                   ERROR_SUCCESS &&
               length == nameSize && output[sizeof(wchar_t)] == '1'),
          "a filed RSA key has lost its values");
    check(p.GetKeyProperty(ec, NCRYPT_NAME_PROPERTY, output.data(), room, &length, 0) ==
                  ERROR_SUCCESS &&
              length == nameSize && output[sizeof(wchar_t)] == '2',
          "a filed EC key has lost its values");
    check(p.SignHash(rsa, &pkcs1, hash.data(), 32, output.data(), room, &length,
                     BCRYPT_PAD_PKCS1) == ERROR_SUCCESS &&
              gives(rsaSignature),
          "the next RSA signature fails");
    check(p.VerifySignature(ec, nullptr, hash.data(), 32, ecSignature.data(), sizeOf(ecSignature),
                            0) == ERROR_SUCCESS,
          "the next verification fails");
    check(p.DeriveKey(secret, BCRYPT_KDF_HASH, &hashList_, output.data(), room, &length, 0) ==
                  ERROR_SUCCESS &&
              gives(digestOf(CKM_SHA256, Bytes{0xA1, 0xA2, 0x51, 0x52, 0x53})),
          "the next derivation fails");
    return wrong;
}

}  // namespace NV::test
