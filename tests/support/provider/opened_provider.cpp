// A provider opened through the module's table.

#include <gtest/gtest.h>

#include "provider_module.h"

namespace NV::test {

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
