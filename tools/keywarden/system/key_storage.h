// The key storage provider as this program calls it: through the module's own operation table, or
// through the system's ncrypt.dll. Used by every command that works with keys.

#pragma once

#include "base/cng.h"

#include <filesystem>
#include <string>
#include <vector>

#include "base/encoding.h"

namespace NV::tool {

struct Session;

// An opened provider. The module reads its configuration from the user's profile while it is
// loaded. Throws Failure when it cannot be loaded or opened, with what to do next.
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
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE table_{};
    NCRYPT_PROV_HANDLE handle_ = 0;
    const char* advice_;  // when the provider does not do what it always can
};

// An opened or imported key; closed at the end. The storage must outlive it.
class Key {
public:
    // Throws Failure when the provider has no key of that name, with the names that it has.
    Key(const KeyStorage& storage, const std::wstring& name);
    // A public key blob of CNG's (BCRYPT_RSAPUBLIC_BLOB, BCRYPT_ECCPUBLIC_BLOB).
    Key(const KeyStorage& storage, const wchar_t* blobType, Bytes blob);
    ~Key();
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;

    NCRYPT_KEY_HANDLE handle() const { return handle_; }
    const KeyStorage& storage() const { return storage_; }

    // A text property without its terminator. Throws Failure when there is none.
    std::wstring text(const wchar_t* name) const;

    // "RSA" or "ECDSA", whatever the curve.
    bool isRsa() const;

    // The public key as CNG's blob.
    Bytes publicBlob() const;
    // Of the modulus, or of the curve.
    DWORD bits() const;

private:
    const KeyStorage& storage_;
    NCRYPT_KEY_HANDLE handle_ = 0;
};

// Of the curve of a BCRYPT_ECCPUBLIC_BLOB.
DWORD bitsOfEcBlob(const Bytes& blob);

// Throws Failure "<what> failed: <status>" unless the status is ERROR_SUCCESS. A cancelled dialog
// and a refused PIN get their advice here.
void require(SECURITY_STATUS status, const std::string& what);

// Where the dialog cannot be shown, the provider has an empty PIN, does nothing, and says
// ERROR_SUCCESS. Then there is no result, and this throws Failure.
void requireResult(bool given, const std::string& what);

}  // namespace NV::tool
