// The providers that are registered with the router, and their loaded DLLs.

#pragma once

#include "base/cng.h"

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace NV::router {

struct Registration {
    std::wstring name;
    std::filesystem::path dll;
};

// In the order of the file that KEYWARDEN_ROUTER_PROVIDERS names; none if it names no file.
std::vector<Registration> registrations();

// The DLL of a provider, loaded while an object of it lives.
class ProviderDll {
public:
    ProviderDll(HMODULE module, const NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table)
        : module_(module), table_(table)
    {
    }
    ~ProviderDll() { FreeLibrary(module_); }
    ProviderDll(const ProviderDll&) = delete;
    ProviderDll& operator=(const ProviderDll&) = delete;

    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE* operator->() const { return table_; }

private:
    HMODULE module_;
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table_;
};

// The DLL of the registered provider of this name, loaded if it is not. Sets the status and returns
// null if there is none: NTE_PROV_DLL_NOT_FOUND, or NTE_PROVIDER_DLL_FAIL for one that is no provider
// or does not load.
std::shared_ptr<ProviderDll> loadProvider(const std::wstring& name, SECURITY_STATUS& status);

}  // namespace NV::router
