// A CNG caller for the demonstration: opens the provider through GetKeyStorageInterface, as the key
// storage router does, and runs one operation for each call. scripts/demo.sh calls it under Wine
// and lets OpenSSL judge what it wrote.
//
//   keywarden-demo PROFILE list
//   keywarden-demo PROFILE certificate KEY OUT      the certificate published in "My", DER
//   keywarden-demo PROFILE sign KEY HASH OUT        SHA-256; PKCS #1 v1.5 with an RSA key
//   keywarden-demo PROFILE encrypt KEY IN OUT       RSA, PKCS #1 v1.5
//   keywarden-demo PROFILE decrypt KEY IN OUT
//   keywarden-demo PROFILE export KEY OUT           CNG public key blob
//   keywarden-demo PROFILE agree KEY PEER OUT       PEER: 04 || X || Y of P-256; OUT: SHA-256 of
//                                                   the agreed secret
//
// PROFILE stands for the user's profile folder, where configuration and log lie.

#include "cng.h"

#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;
using Arguments = std::vector<std::wstring>;

constexpr const wchar_t* providerName = L"Norvanta Software KeyStore Provider";

void check(SECURITY_STATUS status, const char* operation)
{
    if (status == ERROR_SUCCESS)
        return;
    char text[128];
    std::snprintf(text, sizeof text, "%s failed with status 0x%08x", operation,
                  static_cast<unsigned>(status));
    throw std::runtime_error(text);
}

Bytes readFile(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw std::runtime_error("cannot read " + path.string());
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void writeFile(const std::filesystem::path& path, const Bytes& data)
{
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(data.data()),
               static_cast<std::streamsize>(data.size()));
    if (!file.flush())
        throw std::runtime_error("cannot write " + path.string());
}

DWORD size32(const Bytes& data)
{
    return static_cast<DWORD>(data.size());
}

// The module, loaded and opened.
class Provider {
public:
    Provider()
    {
        const HMODULE module = LoadLibraryW(L"nvksprovider.dll");
        if (module == nullptr)
            throw std::runtime_error("nvksprovider.dll does not load; is its configuration there?");
        const auto getInterface = reinterpret_cast<GetKeyStorageInterfaceFn>(
            reinterpret_cast<void*>(GetProcAddress(module, "GetKeyStorageInterface")));
        getInterface(providerName, &table_, 0);
        check(table_->OpenProvider(&handle_, providerName, 0), "OpenProvider");
    }
    ~Provider() { table_->FreeProvider(handle_); }
    Provider(const Provider&) = delete;
    Provider& operator=(const Provider&) = delete;

    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE* operator->() const { return table_; }
    NCRYPT_PROV_HANDLE handle() const { return handle_; }

private:
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table_ = nullptr;
    NCRYPT_PROV_HANDLE handle_ = 0;
};

class Key {
public:
    Key(const Provider& provider, const std::wstring& name) : provider_(provider)
    {
        check(provider_->OpenKey(provider_.handle(), &handle_, name.c_str(), 0, 0), "OpenKey");
    }
    ~Key() { provider_->FreeKey(provider_.handle(), handle_); }
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;

    NCRYPT_KEY_HANDLE handle() const { return handle_; }

    std::wstring text(const wchar_t* property) const
    {
        DWORD size = 0;
        check(
            provider_->GetKeyProperty(provider_.handle(), handle_, property, nullptr, 0, &size, 0),
            "GetKeyProperty");
        std::wstring value(size / sizeof(wchar_t), L'\0');
        check(provider_->GetKeyProperty(provider_.handle(), handle_, property,
                                        reinterpret_cast<PBYTE>(value.data()), size, &size, 0),
              "GetKeyProperty");
        value.pop_back();
        return value;
    }

private:
    const Provider& provider_;
    NCRYPT_KEY_HANDLE handle_ = 0;
};

// An operation with an output buffer: asked for the length first, then for the bytes. The first
// call may show the dialog already, as Decrypt does, so that the room can be given instead.
Bytes output(const char* name,
             const std::function<SECURITY_STATUS(PBYTE, DWORD, DWORD*)>& operation, DWORD room = 0)
{
    DWORD size = room;
    if (room == 0)
        check(operation(nullptr, 0, &size), name);
    Bytes data(size);
    check(operation(data.data(), size32(data), &size), name);
    data.resize(size);
    return data;
}

void list(const Provider& provider, const Arguments&)
{
    void* state = nullptr;
    NCryptKeyName* record = nullptr;
    SECURITY_STATUS status = ERROR_SUCCESS;
    while ((status = provider->EnumKeys(provider.handle(), nullptr, &record, &state, 0)) ==
           ERROR_SUCCESS) {
        const Key key(provider, record->pszName);
        std::printf("%ls %ls\n", record->pszName, key.text(NCRYPT_ALGORITHM_PROPERTY).c_str());
        provider->FreeBuffer(record);
    }
    if (state != nullptr)
        provider->FreeBuffer(state);
    if (status != NTE_NO_MORE_ITEMS)
        check(status, "EnumKeys");
}

void sign(const Provider& provider, const Arguments& arguments)
{
    const Key key(provider, arguments.at(0));
    Bytes hash = readFile(arguments.at(1));
    const bool rsa = key.text(NCRYPT_ALGORITHM_GROUP_PROPERTY) == L"RSA";
    BCRYPT_PKCS1_PADDING_INFO padding{L"SHA256"};
    const Bytes signature = output("SignHash", [&](PBYTE buffer, DWORD room, DWORD* size) {
        return provider->SignHash(provider.handle(), key.handle(), rsa ? &padding : nullptr,
                                  hash.data(), size32(hash), buffer, room, size,
                                  rsa ? BCRYPT_PAD_PKCS1 : 0);
    });
    writeFile(arguments.at(2), signature);
}

void encrypt(const Provider& provider, const Arguments& arguments)
{
    const Key key(provider, arguments.at(0));
    Bytes input = readFile(arguments.at(1));
    writeFile(arguments.at(2), output("Encrypt", [&](PBYTE buffer, DWORD room, DWORD* size) {
                  return provider->Encrypt(provider.handle(), key.handle(), input.data(),
                                           size32(input), nullptr, buffer, room, size,
                                           BCRYPT_PAD_PKCS1);
              }));
}

void decrypt(const Provider& provider, const Arguments& arguments)
{
    const Key key(provider, arguments.at(0));
    Bytes input = readFile(arguments.at(1));
    const auto operation = [&](PBYTE buffer, DWORD room, DWORD* size) {
        return provider->Decrypt(provider.handle(), key.handle(), input.data(), size32(input),
                                 nullptr, buffer, room, size, BCRYPT_PAD_PKCS1);
    };
    writeFile(arguments.at(2), output("Decrypt", operation, size32(input)));
}

void exportKey(const Provider& provider, const Arguments& arguments)
{
    const Key key(provider, arguments.at(0));
    writeFile(arguments.at(1), output("ExportKey", [&](PBYTE buffer, DWORD room, DWORD* size) {
                  return provider->ExportKey(provider.handle(), key.handle(), 0,
                                             BCRYPT_PUBLIC_KEY_BLOB, nullptr, buffer, room, size,
                                             0);
              }));
}

void agree(const Provider& provider, const Arguments& arguments)
{
    const Key key(provider, arguments.at(0));
    const Bytes point = readFile(arguments.at(1));
    const BCRYPT_ECCKEY_BLOB header{BCRYPT_ECDH_PUBLIC_P256_MAGIC, (size32(point) - 1) / 2};
    const auto* head = reinterpret_cast<const unsigned char*>(&header);
    Bytes blob(head, head + sizeof header);
    blob.insert(blob.end(), point.begin() + 1, point.end());

    NCRYPT_KEY_HANDLE peer = 0;
    check(provider->ImportKey(provider.handle(), 0, BCRYPT_ECCPUBLIC_BLOB, nullptr, &peer,
                              blob.data(), size32(blob), 0),
          "ImportKey");
    NCRYPT_SECRET_HANDLE secret = 0;
    check(provider->SecretAgreement(provider.handle(), key.handle(), peer, &secret, 0),
          "SecretAgreement");
    wchar_t hashName[] = L"SHA256";
    BCryptBuffer buffer{sizeof hashName, KDF_HASH_ALGORITHM, hashName};
    NCryptBufferDesc parameters{NCRYPTBUFFER_VERSION, 1, &buffer};
    writeFile(arguments.at(2), output("DeriveKey", [&](PBYTE data, DWORD room, DWORD* size) {
                  return provider->DeriveKey(provider.handle(), secret, BCRYPT_KDF_HASH,
                                             &parameters, data, room, size, 0);
              }));
    check(provider->FreeSecret(provider.handle(), secret), "FreeSecret");
    check(provider->FreeKey(provider.handle(), peer), "FreeKey");
}

bool isPublishedFor(const CERT_CONTEXT& certificate, const std::wstring& keyName)
{
    DWORD size = 0;
    if (!CertGetCertificateContextProperty(&certificate, CERT_KEY_PROV_INFO_PROP_ID, nullptr,
                                           &size))
        return false;
    std::vector<CRYPT_KEY_PROV_INFO> info(size / sizeof(CRYPT_KEY_PROV_INFO) + 1);
    return CertGetCertificateContextProperty(&certificate, CERT_KEY_PROV_INFO_PROP_ID, info.data(),
                                             &size) &&
           keyName == info.front().pwszContainerName &&
           std::wstring_view(providerName) == info.front().pwszProvName;
}

void certificate(const Provider&, const Arguments& arguments)
{
    const HCERTSTORE store = CertOpenSystemStoreW(0, L"MY");
    const CERT_CONTEXT* found = nullptr;
    while ((found = CertEnumCertificatesInStore(store, found)) != nullptr) {
        if (isPublishedFor(*found, arguments.at(0)))
            break;
    }
    if (found == nullptr)
        throw std::runtime_error("the \"My\" store holds no certificate for the key");
    writeFile(arguments.at(1),
              Bytes(found->pbCertEncoded, found->pbCertEncoded + found->cbCertEncoded));
    CertFreeCertificateContext(found);
    CertCloseStore(store, 0);
}

void run(Arguments arguments)
{
    using Operation = void (*)(const Provider&, const Arguments&);
    const std::map<std::wstring, Operation> operations = {
        {L"list", list},       {L"certificate", certificate}, {L"sign", sign},
        {L"encrypt", encrypt}, {L"decrypt", decrypt},         {L"export", exportKey},
        {L"agree", agree},
    };
    if (arguments.size() < 2 || !operations.contains(arguments[1]))
        throw std::runtime_error("usage: keywarden-demo PROFILE OPERATION ARGUMENT...");
    _wputenv((L"USERPROFILE=" + arguments[0]).c_str());
    const Operation operation = operations.at(arguments[1]);
    arguments.erase(arguments.begin(), arguments.begin() + 2);
    const Provider provider;
    operation(provider, arguments);
}

}  // namespace

int wmain(int argc, wchar_t** argv)
{
    try {
        run(Arguments(argv + 1, argv + argc));
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
