// Loading the module or routing through CNG, and the operations that several commands need.

#include "system/key_storage.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "base/curve.h"
#include "failure.h"
#include "nvvtoken/nvvtoken_name.h"
#include "session.h"
#include "system/call_hook.h"
#include "system/explanation.h"
#include "system/library_guard.h"
#include "system/program.h"
#include "system/registration.h"
#include "text.h"

namespace NV::tool {

namespace {

// The loader's error when an exception leaves the module's attach handler, which happens when the
// configuration is missing or invalid.
constexpr DWORD refusedToAttach = 0x20474343;

// The operation table of the module. The module stays loaded until the program ends.
NCRYPT_KEY_STORAGE_FUNCTION_TABLE tableOfModule(const std::filesystem::path& file)
{
    static HMODULE module = nullptr;
    module = LoadLibraryW(file.c_str());
    if (module == nullptr) {
        const DWORD error = GetLastError();
        throw Failure(
            toUtf8(file) + " does not load: " +
                (error == refusedToAttach ? "it cannot read its configuration" : errorText(error)),
            "Run \"keywarden check\" to find the reason.");
    }
    const auto getInterface = reinterpret_cast<GetKeyStorageInterfaceFn>(
        reinterpret_cast<void*>(GetProcAddress(module, "GetKeyStorageInterface")));
    if (getInterface == nullptr)
        throw Failure(toUtf8(file) + " is not a key storage provider");
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table = nullptr;
    const SECURITY_STATUS status = getInterface(providerName, &table, 0);
    if (status != ERROR_SUCCESS || table == nullptr)
        throw Failure(toUtf8(file) +
                          " is not this product's provider: GetKeyStorageInterface gave " +
                          (status != ERROR_SUCCESS ? statusText(status) : "no table"),
                      "Specify nvksprovider.dll, or leave --module out.");
    return *table;
}

// The functions of ncrypt.dll in the form of a provider's table. They take no provider handle in
// addition to the handle of a key or a secret.
NCRYPT_KEY_STORAGE_FUNCTION_TABLE tableOfCng()
{
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE table{};
    table.OpenProvider = NCryptOpenStorageProvider;
    table.OpenKey = NCryptOpenKey;
    table.FreeProvider = [](NCRYPT_PROV_HANDLE provider) { return NCryptFreeObject(provider); };
    table.FreeKey = [](NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE key) { return NCryptFreeObject(key); };
    table.FreeSecret = [](NCRYPT_PROV_HANDLE, NCRYPT_SECRET_HANDLE secret) {
        return NCryptFreeObject(secret);
    };
    table.FreeBuffer = NCryptFreeBuffer;
    table.EnumKeys = NCryptEnumKeys;
    table.GetKeyProperty = [](NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE key, LPCWSTR name, PBYTE output,
                              DWORD room, DWORD* size, DWORD flags) {
        return NCryptGetProperty(key, name, output, room, size, flags);
    };
    table.ImportKey = NCryptImportKey;
    table.ExportKey = [](NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE key, NCRYPT_KEY_HANDLE exportKey,
                         LPCWSTR type, NCryptBufferDesc* parameters, PBYTE output, DWORD room,
                         DWORD* size, DWORD flags) {
        return NCryptExportKey(key, exportKey, type, parameters, output, room, size, flags);
    };
    table.SignHash = [](NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE key, VOID* padding, PBYTE hash,
                        DWORD hashSize, PBYTE signature, DWORD room, DWORD* size, DWORD flags) {
        return NCryptSignHash(key, padding, hash, hashSize, signature, room, size, flags);
    };
    table.VerifySignature = [](NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE key, VOID* padding, PBYTE hash,
                               DWORD hashSize, PBYTE signature, DWORD signatureSize, DWORD flags) {
        return NCryptVerifySignature(key, padding, hash, hashSize, signature, signatureSize, flags);
    };
    table.Encrypt = [](NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE key, PBYTE input, DWORD inputSize,
                       VOID* padding, PBYTE output, DWORD room, DWORD* size, DWORD flags) {
        return NCryptEncrypt(key, input, inputSize, padding, output, room, size, flags);
    };
    table.Decrypt = [](NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE key, PBYTE input, DWORD inputSize,
                       VOID* padding, PBYTE output, DWORD room, DWORD* size, DWORD flags) {
        return NCryptDecrypt(key, input, inputSize, padding, output, room, size, flags);
    };
    table.SecretAgreement = [](NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE key, NCRYPT_KEY_HANDLE peer,
                               NCRYPT_SECRET_HANDLE* secret, DWORD flags) {
        return NCryptSecretAgreement(key, peer, secret, flags);
    };
    table.DeriveKey = [](NCRYPT_PROV_HANDLE, NCRYPT_SECRET_HANDLE secret, LPCWSTR kdf,
                         NCryptBufferDesc* parameters, PBYTE output, DWORD room, DWORD* size,
                         ULONG flags) {
        return NCryptDeriveKey(secret, kdf, parameters, output, room, size, flags);
    };
    return table;
}

NCRYPT_KEY_STORAGE_FUNCTION_TABLE tableOf(const Session& session)
{
    const GuardedCall call(moduleLoading);
    return session.cng ? tableOfCng()
                       : tableOfModule(session.module.empty() ? defaultModule() : session.module);
}

// The operations that can reach the token's library.
#define NV_GUARDED_OPERATIONS(X)                                                                   \
    X(OpenProvider)                                                                                \
    X(OpenKey)                                                                                     \
    X(FreeProvider)                                                                                \
    X(EnumKeys)                                                                                    \
    X(GetKeyProperty)                                                                              \
    X(ImportKey)                                                                                   \
    X(ExportKey)                                                                                   \
    X(SignHash)                                                                                    \
    X(VerifySignature)                                                                             \
    X(Encrypt)                                                                                     \
    X(Decrypt)                                                                                     \
    X(SecretAgreement)                                                                             \
    X(DeriveKey)

#define NV_TAG(name)                                                                               \
    struct Operation##name {                                                                       \
        template <typename Work>                                                                   \
        static auto around(const Work& work)                                                       \
        {                                                                                          \
            const GuardedCall call(#name);                                                         \
            return work();                                                                         \
        }                                                                                          \
    };
NV_GUARDED_OPERATIONS(NV_TAG)
#undef NV_TAG

// The table with a guard before each of these operations.
NCRYPT_KEY_STORAGE_FUNCTION_TABLE guardedTable(const Session& session)
{
    guardKeyStorage(session);
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE table = tableOf(session);
    // In classic, the module handles the signals of a crash itself.
    guardKeyStorage(session);
#define NV_INSTALL(name) CallHook<decltype(table.name), Operation##name>::install(table.name);
    NV_GUARDED_OPERATIONS(NV_INSTALL)
#undef NV_INSTALL
    return table;
}

}  // namespace

void guardKeyStorage(const Session& session)
{
    constexpr std::chrono::seconds standard{120};
    guardLibrary(session.limit(standard), session.out);
}

// An installed product has the DLL only in the system's folder.
std::filesystem::path defaultModule()
{
    const std::filesystem::path beside = ownProgram().replace_filename(registeredImage);
    std::error_code error;
    const std::filesystem::path installed = thisSystem().systemFolder / registeredImage;
    return !std::filesystem::exists(beside, error) && std::filesystem::exists(installed, error)
               ? installed
               : beside;
}

void require(SECURITY_STATUS status, const std::string& what, PinUse pin)
{
    if (status != ERROR_SUCCESS)
        throw operationFailure(status, what, pin);
}

void requireResult(bool given, const std::string& what)
{
    if (!given)
        throw Failure(what + " failed: no PIN was entered",
                      "The PIN dialog could not be shown; it needs a desktop.",
                      ExitCode::noDesktop);
}

KeyStorage::KeyStorage(const Session& session) : table_(guardedTable(session)), cng_(session.cng)
{
    const SECURITY_STATUS status = table_.OpenProvider(&handle_, providerName, 0);
    if (status != ERROR_SUCCESS)
        fail(status, "opening the provider");
}

void KeyStorage::fail(SECURITY_STATUS status, const std::string& what) const
{
    // The router of CNG has statuses of its own for a provider that is not registered.
    if (cng_ && status != NTE_INTERNAL_ERROR)
        throw Failure(what + " failed: " + statusText(status),
                      "Run \"keywarden status\" to see whether it is registered.", ExitCode::failed,
                      status);
    const Failure failure = operationFailure(status, what, PinUse::none);
    throw Failure(failure.what(),
                  failure.advice() + (failure.advice().empty() ? "" : " ") +
                      "Run \"keywarden check\" to find the reason.",
                  failure.exitCode(), status);
}

KeyStorage::~KeyStorage()
{
    atEnd([this] { table_.FreeProvider(handle_); });
}

std::vector<std::wstring> KeyStorage::keyNames() const
{
    std::vector<std::wstring> names;
    void* state = nullptr;
    NCryptKeyName* record = nullptr;
    SECURITY_STATUS status = ERROR_SUCCESS;
    while ((status = table_.EnumKeys(handle_, nullptr, &record, &state, 0)) == ERROR_SUCCESS) {
        names.emplace_back(record->pszName);
        table_.FreeBuffer(record);
    }
    if (state != nullptr)
        table_.FreeBuffer(state);
    if (status != NTE_NO_MORE_ITEMS)
        fail(status, "listing the keys");
    return names;
}

Key::Key(const KeyStorage& storage, const std::wstring& name) : storage_(storage)
{
    require(storage_->OpenKey(storage_.handle(), &handle_, name.c_str(), 0, 0),
            "opening the key \"" + toUtf8(name) + "\"");
}

Key::Key(const KeyStorage& storage, const wchar_t* blobType, Bytes blob) : storage_(storage)
{
    require(storage_->ImportKey(storage_.handle(), 0, blobType, nullptr, &handle_, blob.data(),
                                static_cast<DWORD>(blob.size()), 0),
            "importing the public key");
    // For a blob that it does not accept, the provider returns success and no key.
    if (handle_ == 0)
        throw Failure("the provider does not accept this public key");
}

Key::~Key()
{
    atEnd([this] { storage_->FreeKey(storage_.handle(), handle_); });
}

std::wstring Key::text(const wchar_t* name) const
{
    DWORD size = 0;
    const auto read = [&](PBYTE output, DWORD room) {
        require(storage_->GetKeyProperty(storage_.handle(), handle_, name, output, room, &size, 0),
                "reading \"" + toUtf8(name) + "\"");
    };
    read(nullptr, 0);
    std::wstring text(size / sizeof(wchar_t), L'\0');
    read(reinterpret_cast<PBYTE>(text.data()), static_cast<DWORD>(text.size() * sizeof(wchar_t)));
    return text.substr(0, text.find(L'\0'));
}

bool Key::isRsa() const
{
    return text(NCRYPT_ALGORITHM_GROUP_PROPERTY) == L"RSA";
}

Bytes Key::publicBlob() const
{
    DWORD size = 0;
    const auto run = [this](PBYTE output, DWORD room, DWORD* length) {
        require(storage_->ExportKey(storage_.handle(), handle_, 0, BCRYPT_PUBLIC_KEY_BLOB, nullptr,
                                    output, room, length, 0),
                "exporting the public key");
    };
    run(nullptr, 0, &size);
    Bytes blob(size);
    run(blob.data(), size, &size);
    blob.resize(size);
    return blob;
}

DWORD Key::bits() const
{
    const Bytes blob = publicBlob();
    if (!isRsa())
        return bitsOfEcBlob(blob);
    BCRYPT_RSAKEY_BLOB header{};
    std::memcpy(&header, blob.data(), std::min(blob.size(), sizeof header));
    return header.BitLength;
}

DWORD bitsOfEcBlob(const Bytes& blob)
{
    BCRYPT_ECCKEY_BLOB header{};
    std::memcpy(&header, blob.data(), std::min(blob.size(), sizeof header));
    const auto curve = std::ranges::find(cngCurves, header.cbKey, &Curve::coordinateSize);
    return curve != cngCurves.end() ? curve->keyLength : header.cbKey * 8;
}

}  // namespace NV::tool
