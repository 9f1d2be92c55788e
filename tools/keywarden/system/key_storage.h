// Access to the key storage provider: through the module's own operation table, or through the
// system's ncrypt.dll. Used by every command that works with keys.

#pragma once

#include "base/cng.h"

#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include "base/encoding.h"
#include "failure.h"
#include "system/operation_failure.h"

namespace NV::tool {

struct Session;

// The DLL beside this program, or, if there is none, the installed one.
std::filesystem::path defaultModule();

// For destructors: runs a call of the module and keeps what it throws as lateFailure(). The module
// throws when it cannot write its log.
void atEnd(const auto& release) noexcept
{
    try {
        release();
    } catch (const std::exception& error) {
        lateFailure() = std::string("the module failed at the end: ") + error.what();
    } catch (...) {
        lateFailure() = "the module failed at the end";
    }
}

// From now on, a library that crashes or hangs is told; see library_guard.h. KeyStorage does it, too.
void guardKeyStorage(const Session& session);

// An opened provider. The module reads its configuration from the user's profile when it is loaded.
// The constructor throws Failure with an advice when the module cannot be loaded or opened.
class KeyStorage {
public:
    explicit KeyStorage(const Session& session);
    ~KeyStorage();
    KeyStorage(const KeyStorage&) = delete;
    KeyStorage& operator=(const KeyStorage&) = delete;

    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE* operator->() const { return &table_; }
    NCRYPT_PROV_HANDLE handle() const { return handle_; }

    // The names of all keys, in the provider's order.
    std::vector<std::wstring> keyNames() const;

private:
    // Throws the Failure of a call that succeeds on every working provider.
    [[noreturn]] void fail(SECURITY_STATUS status, const std::string& what) const;

    NCRYPT_KEY_STORAGE_FUNCTION_TABLE table_{};
    NCRYPT_PROV_HANDLE handle_ = 0;
    bool cng_;
};

// An opened or imported key; the destructor closes it. The storage must outlive it.
class Key {
public:
    // The name is one of keyNames: after a request for any other name, the provider can no longer list
    // its keys. Throws Failure.
    Key(const KeyStorage& storage, const std::wstring& name);
    // Imports one of CNG's public key blobs (BCRYPT_RSAPUBLIC_BLOB, BCRYPT_ECCPUBLIC_BLOB).
    Key(const KeyStorage& storage, const wchar_t* blobType, Bytes blob);
    ~Key();
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;

    NCRYPT_KEY_HANDLE handle() const { return handle_; }
    const KeyStorage& storage() const { return storage_; }

    // A text property without its terminator. Throws Failure when the key does not have it.
    std::wstring text(const wchar_t* name) const;

    // False for a key on any elliptic curve.
    bool isRsa() const;

    // The public key as a blob of CNG.
    Bytes publicBlob() const;
    // Length of the modulus, or of the curve.
    DWORD bits() const;

private:
    const KeyStorage& storage_;
    NCRYPT_KEY_HANDLE handle_ = 0;
};

// Length of the curve of a BCRYPT_ECCPUBLIC_BLOB, in bits.
DWORD bitsOfEcBlob(const Bytes& blob);

// Throws the Failure of system/operation_failure.h unless the status is ERROR_SUCCESS.
void require(SECURITY_STATUS status, const std::string& what, PinUse pin = PinUse::none);

// Throws Failure when a successful call gave no result: if the provider cannot show the PIN dialog, it
// takes the PIN for empty, does nothing, and returns ERROR_SUCCESS.
void requireResult(bool given, const std::string& what);

}  // namespace NV::tool
