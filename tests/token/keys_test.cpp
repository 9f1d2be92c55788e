// What the provider says about the token's keys without the PIN: names, properties, public key
// blobs and the certificates in the user's store, all against OpenSSL's view of the certificates.

#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "host.h"
#include "p11/cryptoki.h"
#include "token_test.h"

namespace NV::test {

namespace {

constexpr wchar_t registeredName[] = L"Norvanta Software KeyStore Provider";

// Zero-terminated, as in a property.
Bytes wideText(const std::wstring& text)
{
    const auto* begin = reinterpret_cast<const unsigned char*>(text.c_str());
    return {begin, begin + (text.size() + 1) * sizeof(wchar_t)};
}

template <typename Record>
Bytes bytesOf(const Record& record)
{
    const auto* begin = reinterpret_cast<const unsigned char*>(&record);
    return {begin, begin + sizeof record};
}

Bytes operator+(Bytes left, const Bytes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

std::vector<TokenKey> allKeys()
{
    std::vector<TokenKey> keys(std::begin(rsaKeys), std::end(rsaKeys));
    keys.insert(keys.end(), std::begin(ecKeys), std::end(ecKeys));
    return keys;
}

bool isRsa(const TokenKey& key)
{
    return key.bits > 1000;
}

// Each suite has a provider of its own. What opening a key leaves behind in it (an entry for an
// unknown name, empty properties once a handle was closed) is of no concern to the others.
class KeyList : public TokenTest {
protected:
    struct Listed {
        std::wstring name;
        std::wstring algorithm;
        bool operator==(const Listed&) const = default;
    };

    // A whole enumeration.
    static std::vector<Listed> listed()
    {
        std::vector<Listed> keys;
        void* state = nullptr;
        NCryptKeyName* record = nullptr;
        SECURITY_STATUS status = 0;
        while ((status = module()->EnumKeys(provider(), nullptr, &record, &state, 0)) ==
               ERROR_SUCCESS) {
            keys.push_back({record->pszName, record->pszAlgid});
            EXPECT_EQ(record->dwLegacyKeySpec, 0U);
            EXPECT_EQ(record->dwFlags, 0U);
            EXPECT_EQ(module()->FreeBuffer(record), ERROR_SUCCESS);
        }
        EXPECT_EQ(status, NTE_NO_MORE_ITEMS);
        EXPECT_EQ(module()->FreeBuffer(state), ERROR_SUCCESS);
        return keys;
    }
};

class KeyProperties : public TokenTest {};
class KeyNames : public TokenTest {};
class TokenKeys : public TokenTest {};

// Keeps the PKCS #11 library initialised, as a browser in the same process would.
class LibraryUser {
public:
    LibraryUser() : library_(LoadLibraryW(host::winelibPath("p11bridge.dll").c_str()))
    {
        const auto getFunctionList = reinterpret_cast<CK_C_GetFunctionList>(
            reinterpret_cast<void*>(GetProcAddress(library_, "C_GetFunctionList")));
        EXPECT_EQ(getFunctionList(&functions_), CKR_OK);
        EXPECT_EQ(functions_->C_Initialize(nullptr), CKR_OK);
    }
    ~LibraryUser()
    {
        EXPECT_EQ(functions_->C_Finalize(nullptr), CKR_OK);
        FreeLibrary(library_);
    }
    LibraryUser(const LibraryUser&) = delete;
    LibraryUser& operator=(const LibraryUser&) = delete;

    const CK_FUNCTION_LIST* operator->() const { return functions_; }

private:
    HMODULE library_;
    CK_FUNCTION_LIST* functions_ = nullptr;
};

struct StoreCloser {
    void operator()(void* store) const { CertCloseStore(store, 0); }
};

struct ContextFreer {
    void operator()(const CERT_CONTEXT* context) const { CertFreeCertificateContext(context); }
};
using CertContext = std::unique_ptr<const CERT_CONTEXT, ContextFreer>;

// The user's certificate with exactly these bytes; null when there is none.
CertContext publishedCertificate(const Bytes& der)
{
    const std::unique_ptr<void, StoreCloser> store(CertOpenSystemStoreW(0, L"MY"));
    const CERT_CONTEXT* context = nullptr;
    while ((context = CertEnumCertificatesInStore(store.get(), context)) != nullptr) {
        if (Bytes(context->pbCertEncoded, context->pbCertEncoded + context->cbCertEncoded) == der)
            return CertContext(context);
    }
    return nullptr;
}

Bytes certificateOf(const std::string& token, const TokenKey& key)
{
    const std::string text = readFile(host::windowsPath(token + "/keys/" + key.file + ".crt.der"));
    return {text.begin(), text.end()};
}

void expectKeyProviderInformation(const CERT_CONTEXT& certificate, const TokenKey& key)
{
    DWORD size = 0;
    ASSERT_TRUE(CertGetCertificateContextProperty(&certificate, CERT_KEY_PROV_INFO_PROP_ID, nullptr,
                                                  &size));
    std::vector<CRYPT_KEY_PROV_INFO> block(size / sizeof(CRYPT_KEY_PROV_INFO) + 1);
    ASSERT_TRUE(CertGetCertificateContextProperty(&certificate, CERT_KEY_PROV_INFO_PROP_ID,
                                                  block.data(), &size));
    const CRYPT_KEY_PROV_INFO& info = block.front();
    EXPECT_STREQ(info.pwszContainerName, key.name);
    EXPECT_STREQ(info.pwszProvName, registeredName);
    EXPECT_EQ(info.dwProvType, 0U);
    EXPECT_EQ(info.dwFlags, 0U);
    EXPECT_EQ(info.cProvParam, 0U);
    EXPECT_EQ(info.dwKeySpec, DWORD{AT_SIGNATURE});
}

}  // namespace

TEST_F(KeyList, IsInTheOrderOfTheNames)
{
    constexpr wchar_t rsa[] = L"1.2.840.113549.1.1.1";
    constexpr wchar_t ec[] = L"1.2.840.10045.2.1";
    const std::vector<Listed> expected = {{L"01AB", rsa}, {L"0256", ec},  {L"0384", ec},
                                          {L"03A1", rsa}, {L"04C2", rsa}, {L"0521", ec}};
    EXPECT_EQ(listed(), expected);
    EXPECT_EQ(listed(), expected);  // a second enumeration begins anew
}

TEST_F(KeyProperties, TellEachKeyAndAreEmptyOnceAHandleWasClosed)
{
    constexpr DWORD decryptAndSign = 3;
    constexpr DWORD hardware = 1;
    constexpr DWORD noExport = 0;
    for (const TokenKey& token : allKeys()) {
        SCOPED_TRACE(token.file);
        const OpenedKey key = open(token);
        const auto is = [&](const wchar_t* property, const Bytes& expected) {
            const Outcome value = key.property(property);
            EXPECT_EQ(value.status, ERROR_SUCCESS) << std::filesystem::path(property);
            EXPECT_EQ(value.bytes, expected) << std::filesystem::path(property);
        };
        is(L"Name", wideText(token.name));
        is(L"Unique Name", wideText(token.name));
        is(L"Key Usage", bytesOf(decryptAndSign));
        is(L"Impl Type", bytesOf(hardware));
        is(L"Export Policy", bytesOf(noExport));
        is(L"Algorithm Group", wideText(isRsa(token) ? L"RSA" : L"ECDSA"));
        is(L"Algorithm Name",
           wideText(isRsa(token) ? L"RSA" : L"ECDSA_P" + std::to_wstring(token.bits)));
    }
    // All handles of a key share the values, and the first that is closed takes them along.
    for (const TokenKey& token : allKeys()) {
        const Outcome value = open(token).property(L"Name");
        EXPECT_EQ(value.status, ERROR_SUCCESS);
        EXPECT_EQ(value.bytes, Bytes{});
    }
}

TEST_F(KeyNames, CountExactly)
{
    NCRYPT_KEY_HANDLE key = 0;
    for (const wchar_t* name : {L"01ab", L"1AB", L"01AB ", L"", L"rsa2048"})
        EXPECT_EQ(module()->OpenKey(provider(), &key, name, 0, 0), NTE_INVALID_HANDLE);
    EXPECT_EQ(key, 0U);
}

TEST_F(TokenKeys, TwoHandlesOfOneKeyWorkAndEndOnTheirOwn)
{
    const OpenedKey first = open(rsa2048);
    const Bytes hash = arbitraryBytes(sha256.size);
    {
        const OpenedKey second = open(rsa2048);
        EXPECT_NE(first.handle(), second.handle());
        const Outcome one = first.sign(Padding::pkcs1(sha256.cng), hash);
        const Outcome other = second.sign(Padding::pkcs1(sha256.cng), hash);
        EXPECT_EQ(one.status, ERROR_SUCCESS);
        EXPECT_EQ(other.status, ERROR_SUCCESS);
        EXPECT_EQ(one.bytes, other.bytes);
    }
    const Outcome after = first.sign(Padding::pkcs1(sha256.cng), hash);
    ASSERT_EQ(after.status, ERROR_SUCCESS);
    EXPECT_TRUE(openSsl().verifies(rsa2048, hash, after.bytes, "-pkeyopt digest:sha256"));
}

TEST_F(TokenKeys, RsaBlobHasTheCertificatesModulus)
{
    for (const TokenKey& token : rsaKeys) {
        SCOPED_TRACE(token.file);
        const Bytes modulus = openSsl().modulus(token);
        ASSERT_EQ(modulus.size(), token.bytes());
        const BCRYPT_RSAKEY_BLOB header{BCRYPT_RSAPUBLIC_MAGIC, token.bits, 3, token.bytes(), 0, 0};
        const Bytes expected = bytesOf(header) + Bytes{1, 0, 1} + modulus;
        const OpenedKey key = open(token);
        for (const wchar_t* type :
             {L"PUBLICBLOB", L"CAPIPUBLICBLOB", L"RSAPUBLICBLOB", L"ECCPUBLICBLOB"}) {
            const Outcome blob = key.exported(type);
            EXPECT_EQ(blob.status, ERROR_SUCCESS);
            EXPECT_EQ(blob.bytes, expected);
        }
        EXPECT_EQ(key.exported(L"RSAFULLPRIVATEBLOB").status, NTE_NOT_SUPPORTED);
    }
}

TEST_F(TokenKeys, EcBlobHasTheCertificatesPoint)
{
    constexpr ULONG magics[] = {BCRYPT_ECDSA_PUBLIC_P256_MAGIC, BCRYPT_ECDSA_PUBLIC_P384_MAGIC,
                                BCRYPT_ECDSA_PUBLIC_P521_MAGIC};
    const ULONG* magic = magics;
    for (const TokenKey& token : ecKeys) {
        SCOPED_TRACE(token.file);
        // A SubjectPublicKeyInfo ends in the point.
        const Bytes information = openSsl().publicKeyInfo(token);
        const Bytes point(information.end() - 2 * static_cast<ptrdiff_t>(token.bytes()),
                          information.end());
        const Bytes expected = bytesOf(BCRYPT_ECCKEY_BLOB{*magic++, token.bytes()}) + point;
        const OpenedKey key = open(token);
        for (const wchar_t* type :
             {L"PUBLICBLOB", L"CAPIPUBLICBLOB", L"RSAPUBLICBLOB", L"ECCPUBLICBLOB"}) {
            const Outcome blob = key.exported(type);
            EXPECT_EQ(blob.status, ERROR_SUCCESS);
            EXPECT_EQ(blob.bytes, expected);
        }
        EXPECT_EQ(key.exported(L"ECCPRIVATEBLOB").status, NTE_NOT_SUPPORTED);
    }
}

// Another provider in the same process, at the same time: the library underneath has but one state.
TEST_F(TokenKeys, TwoProvidersWorkSideBySide)
{
    const OpenedProvider another(module());
    const auto encryptOften = [](NCRYPT_PROV_HANDLE handle) {
        const OpenedKey key(module(), handle, rsa2048.name);
        for (int i = 0; i < 10; ++i)
            EXPECT_EQ(key.encrypt(Padding::pkcs1(nullptr), arbitraryBytes(20)).status,
                      ERROR_SUCCESS);
    };
    std::thread thread(encryptOften, another.handle());
    encryptOften(provider());
    thread.join();
}

// Another part of the process has the library initialised: the provider works with it as it is and
// leaves it as it was.
TEST_F(TokenKeys, WorkWhileSomebodyElseUsesTheLibrary)
{
    const LibraryUser somebody;
    const Bytes hash = arbitraryBytes(sha256.size);
    {
        const OpenedKey key = open(rsa2048);
        const Outcome signature = key.sign(Padding::pkcs1(sha256.cng), hash);
        EXPECT_EQ(signature.status, ERROR_SUCCESS);
        EXPECT_EQ(key.encrypt(Padding::pkcs1(nullptr), hash).status, ERROR_SUCCESS);
    }
    CK_INFO information{};
    EXPECT_EQ(somebody->C_GetInfo(&information), CKR_OK);
}

// With certificates that were never published before: Wine writes the provider information of a
// certificate only once.
TEST(Publication, PutsEachCertificateInTheUsersStoreWithItsKey)
{
    const host::TemporaryFolder folder;
    const std::string made = folder.unixPath() + "/made";
    ASSERT_EQ(host::run(std::string(NV_TEST_MAKE_TOKEN " --small ") + host::quoted(made)), 0);
    constexpr TokenKey keys[] = {rsa2048, p256};
    for (const TokenKey& key : keys)
        ASSERT_EQ(publishedCertificate(certificateOf(made, key)), nullptr);

    const TokenProfile profile(made);
    const ProviderModule module;
    const OpenedProvider provider(module);
    for (const TokenKey& key : keys) {
        SCOPED_TRACE(key.file);
        const CertContext certificate = publishedCertificate(certificateOf(made, key));
        ASSERT_NE(certificate, nullptr);
        expectKeyProviderInformation(*certificate, key);
    }
}

}  // namespace NV::test
