// Reads the file of registrations and loads DLLs.

#include "providers.h"

#include <algorithm>
#include <fstream>

#include "base/text.h"

namespace NV::router {

namespace {

std::wstring registrationFile()
{
    constexpr const wchar_t* variable = L"KEYWARDEN_ROUTER_PROVIDERS";
    std::wstring path(GetEnvironmentVariableW(variable, nullptr, 0), L'\0');
    path.resize(GetEnvironmentVariableW(variable, path.data(), static_cast<DWORD>(path.size())));
    return path;
}

const NCRYPT_KEY_STORAGE_FUNCTION_TABLE* tableOf(HMODULE module, const std::wstring& name)
{
    const auto getInterface = reinterpret_cast<GetKeyStorageInterfaceFn>(
        reinterpret_cast<void*>(GetProcAddress(module, "GetKeyStorageInterface")));
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table = nullptr;
    if (getInterface == nullptr || getInterface(name.c_str(), &table, 0) != 0)
        return nullptr;
    return table;
}

}  // namespace

std::vector<Registration> registrations()
{
    std::vector<Registration> all;
    std::ifstream file(std::filesystem::path(registrationFile()), std::ios::binary);
    for (std::string line; std::getline(file, line);) {
        std::erase(line, '\r');
        const size_t equals = line.find('=');
        if (equals != std::string::npos)
            all.push_back({fromUtf8(line.substr(0, equals)), fromUtf8(line.substr(equals + 1))});
    }
    return all;
}

std::shared_ptr<ProviderDll> loadProvider(const std::wstring& name, SECURITY_STATUS& status)
{
    const std::vector<Registration> all = registrations();
    const auto found = std::ranges::find(all, name, &Registration::name);
    std::error_code error;
    if (found == all.end() || !std::filesystem::exists(found->dll, error)) {
        status = NTE_PROV_DLL_NOT_FOUND;
        return nullptr;
    }
    // The loader counts: a provider that is loaded already is loaded once more.
    HMODULE module = LoadLibraryW(found->dll.c_str());
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table =
        module != nullptr ? tableOf(module, name) : nullptr;
    if (table == nullptr) {
        if (module != nullptr)
            FreeLibrary(module);
        status = NTE_PROVIDER_DLL_FAIL;
        return nullptr;
    }
    return std::make_shared<ProviderDll>(module, table);
}

}  // namespace NV::router
