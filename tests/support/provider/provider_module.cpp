#include "provider_module.h"

#include <gtest/gtest.h>

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

OpenedProvider::OpenedProvider(const ProviderModule& module) : module_(module)
{
    EXPECT_EQ(module_->OpenProvider(&handle_, L"Norvanta Software KeyStore Provider", 0),
              ERROR_SUCCESS);
}

OpenedProvider::~OpenedProvider()
{
    if (handle_ != 0) {
        EXPECT_EQ(module_->FreeProvider(handle_), ERROR_SUCCESS);
    }
}

NCRYPT_KEY_HANDLE OpenedProvider::openKey(const wchar_t* name) const
{
    NCRYPT_KEY_HANDLE key = 0;
    EXPECT_EQ(module_->OpenKey(handle_, &key, name, 0, 0), ERROR_SUCCESS);
    return key;
}

}  // namespace NV::test
