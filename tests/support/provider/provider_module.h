// The module under test as CNG's key storage router sees it: loaded by path, asked for its table,
// unloaded. Used by the module and token tests.

#pragma once

#include <filesystem>

#include "base/cng.h"

namespace NV::test {

class ProviderModule {
public:
    // Loads the build's nvksprovider.dll with checks, or the one that the environment variable
    // KEYWARDEN_MODULE names. The profile must be in place by then, because the module reads its
    // configuration while it is attached. Throws std::system_error.
    ProviderModule();
    explicit ProviderModule(const std::filesystem::path& dll);
    ~ProviderModule();
    ProviderModule(const ProviderModule&) = delete;
    ProviderModule& operator=(const ProviderModule&) = delete;

    // The operation table, from GetKeyStorageInterface.
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE* operator->() const { return table_; }
    HMODULE handle() const { return module_; }
    GetKeyStorageInterfaceFn getKeyStorageInterface() const { return getInterface_; }

    static std::filesystem::path defaultPath();

private:
    HMODULE module_ = nullptr;
    GetKeyStorageInterfaceFn getInterface_ = nullptr;
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table_ = nullptr;
};

// A provider opened through a module's table and freed at the end. Fails the test when it cannot be
// opened.
class OpenedProvider {
public:
    explicit OpenedProvider(const ProviderModule& module);
    ~OpenedProvider();
    OpenedProvider(const OpenedProvider&) = delete;
    OpenedProvider& operator=(const OpenedProvider&) = delete;

    NCRYPT_PROV_HANDLE handle() const { return handle_; }
    // Opens a key by name; fails the test and gives 0 when there is none.
    NCRYPT_KEY_HANDLE openKey(const wchar_t* name) const;

private:
    const ProviderModule& module_;
    NCRYPT_PROV_HANDLE handle_ = 0;
};

}  // namespace NV::test
