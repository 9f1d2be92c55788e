// Properties: one is the router's own, all others are the provider's.

#include "base/cng.h"

#include <cstring>
#include <string_view>

#include "handles.h"

using namespace NV::router;

namespace {

bool isProviderHandle(LPCWSTR property)
{
    return std::wstring_view(property) == NCRYPT_PROVIDER_HANDLE_PROPERTY;
}

// A new handle for each call, which the caller frees.
SECURITY_STATUS giveProviderHandle(const ProviderPointer& provider, PBYTE pbOutput, DWORD cbOutput,
                                   DWORD* pcbResult)
{
    NCRYPT_PROV_HANDLE handle = 0;
    *pcbResult = sizeof handle;
    if (pbOutput == nullptr)
        return ERROR_SUCCESS;
    if (cbOutput < sizeof handle)
        return NTE_BUFFER_TOO_SMALL;
    handle = addProvider(provider);
    std::memcpy(pbOutput, &handle, sizeof handle);
    return ERROR_SUCCESS;
}

}  // namespace

SECURITY_STATUS WINAPI NCryptGetProperty(NCRYPT_HANDLE hObject, LPCWSTR pszProperty, PBYTE pbOutput,
                                         DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags)
{
    const ProviderPointer provider = findProviderOf(hObject);
    if (provider == nullptr)
        return NTE_INVALID_HANDLE;
    if (pszProperty == nullptr || pcbResult == nullptr)
        return NTE_INVALID_PARAMETER;
    if (isProviderHandle(pszProperty))
        return giveProviderHandle(provider, pbOutput, cbOutput, pcbResult);
    if (const ObjectPointer key = findKey(hObject); key != nullptr)
        return key->dll()->GetKeyProperty(key->providerHandle(), key->inner(), pszProperty,
                                          pbOutput, cbOutput, pcbResult, dwFlags);
    if (findProvider(hObject) != nullptr)
        return provider->dll()->GetProviderProperty(provider->inner(), pszProperty, pbOutput,
                                                    cbOutput, pcbResult, dwFlags);
    return NTE_NOT_SUPPORTED;  // A provider's table has no properties of secrets.
}

SECURITY_STATUS WINAPI NCryptSetProperty(NCRYPT_HANDLE hObject, LPCWSTR pszProperty, PBYTE pbInput,
                                         DWORD cbInput, DWORD dwFlags)
{
    const ProviderPointer provider = findProviderOf(hObject);
    if (provider == nullptr)
        return NTE_INVALID_HANDLE;
    if (pszProperty == nullptr)
        return NTE_INVALID_PARAMETER;
    if (isProviderHandle(pszProperty))
        return NTE_NOT_SUPPORTED;
    if (const ObjectPointer key = findKey(hObject); key != nullptr)
        return key->dll()->SetKeyProperty(key->providerHandle(), key->inner(), pszProperty, pbInput,
                                          cbInput, dwFlags);
    if (findProvider(hObject) != nullptr)
        return provider->dll()->SetProviderProperty(provider->inner(), pszProperty, pbInput,
                                                    cbInput, dwFlags);
    return NTE_NOT_SUPPORTED;
}
