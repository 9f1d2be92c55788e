#include "provider_module.h"

#include <cstdlib>
#include <system_error>

#include "child.h"

namespace NV::test {

namespace {

[[noreturn]] void throwLastError(const char* what)
{
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), what);
}

}  // namespace

std::filesystem::path ProviderModule::defaultPath()
{
    const wchar_t* other = _wgetenv(L"KEYWARDEN_MODULE");
    return other != nullptr ? other : NV_TEST_MODULE;
}

ProviderModule::ProviderModule() : ProviderModule(defaultPath()) {}

ProviderModule::ProviderModule(const std::filesystem::path& dll)
    : module_(LoadLibraryW(dll.c_str()))
{
    if (module_ == nullptr)
        throwLastError("LoadLibrary");
    getInterface_ = reinterpret_cast<GetKeyStorageInterfaceFn>(
        reinterpret_cast<void*>(GetProcAddress(module_, "GetKeyStorageInterface")));
    if (getInterface_ == nullptr)
        throwLastError("GetProcAddress");
    getInterface_(L"Norvanta Software KeyStore Provider", &table_, 0);
}

ProviderModule::~ProviderModule()
{
    FreeLibrary(module_);
}

}  // namespace NV::test
