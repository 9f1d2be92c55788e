// A provider that the registry opens and that the destructor frees.

#pragma once

#include <stdexcept>

#include "nvvtoken/nvvtoken.h"

namespace NV::bench {

class OpenedProvider {
public:
    OpenedProvider()
    {
        if (ProviderManager::instance().OpenProvider(&handle_, providerName, 0) != ERROR_SUCCESS)
            throw std::runtime_error("the provider does not open");
    }
    ~OpenedProvider() { ProviderManager::instance().FreeProvider(handle_); }
    OpenedProvider(const OpenedProvider&) = delete;
    OpenedProvider& operator=(const OpenedProvider&) = delete;

    NCRYPT_PROV_HANDLE handle() const { return handle_; }

private:
    NCRYPT_PROV_HANDLE handle_ = 0;
};

}  // namespace NV::bench
