// Writes the file that the router reads.

#include "registered_provider.h"

#include <windows.h>

#include "base/text.h"
#include "nvvtoken/nvvtoken_name.h"
#include "provider_module.h"

namespace NV::test {

namespace {

constexpr const wchar_t* variable = L"KEYWARDEN_ROUTER_PROVIDERS";

}  // namespace

RegisteredProvider::RegisteredProvider()
{
    add(providerName, ProviderModule::defaultPath());
    SetEnvironmentVariableW(variable, (folder_.path() / L"providers").c_str());
}

RegisteredProvider::~RegisteredProvider()
{
    SetEnvironmentVariableW(variable, nullptr);
}

void RegisteredProvider::add(const std::wstring& name, const std::filesystem::path& dll)
{
    lines_ += toUtf8(name) + "=" + toUtf8(dll.wstring()) + "\n";
    writeFile(folder_.path() / L"providers", lines_);
}

}  // namespace NV::test
