// Providers and what is freed: opening and listing providers, their algorithms and keys, freeing handles
// and blocks.

#include "base/cng.h"

#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "buffers.h"
#include "handles.h"

using namespace NV::router;

SECURITY_STATUS WINAPI NCryptOpenStorageProvider(NCRYPT_PROV_HANDLE* phProvider,
                                                 LPCWSTR pszProviderName, DWORD dwFlags)
{
    if (phProvider == nullptr)
        return NTE_INVALID_PARAMETER;
    // A null name means the system's default provider.
    const wchar_t* name = pszProviderName != nullptr ? pszProviderName : MS_KEY_STORAGE_PROVIDER;
    SECURITY_STATUS status = ERROR_SUCCESS;
    auto dll = loadProvider(name, status);
    if (dll == nullptr)
        return status;
    NCRYPT_PROV_HANDLE inner = 0;
    status = (*dll)->OpenProvider(&inner, name, dwFlags);
    if (status == ERROR_SUCCESS)
        *phProvider = addProvider(std::make_shared<OpenedProvider>(std::move(dll), inner));
    return status;
}

// One block: the records, then their texts.
SECURITY_STATUS WINAPI NCryptEnumStorageProviders(DWORD* pdwProviderCount,
                                                  NCryptProviderName** ppProviderList, DWORD)
{
    if (pdwProviderCount == nullptr || ppProviderList == nullptr)
        return NTE_INVALID_PARAMETER;
    const std::vector<Registration> all = registrations();
    size_t size = all.size() * sizeof(NCryptProviderName) + sizeof(wchar_t);
    for (const Registration& one : all)
        size += (one.name.size() + 1) * sizeof(wchar_t);
    auto* records = static_cast<NCryptProviderName*>(newBuffer(size));
    auto* text = reinterpret_cast<wchar_t*>(records + all.size());
    wchar_t* noComment = text;
    *text++ = L'\0';
    for (size_t i = 0; i < all.size(); ++i) {
        records[i] = {text, noComment};
        std::wmemcpy(text, all[i].name.c_str(), all[i].name.size() + 1);
        text += all[i].name.size() + 1;
    }
    *pdwProviderCount = static_cast<DWORD>(all.size());
    *ppProviderList = records;
    return ERROR_SUCCESS;
}

SECURITY_STATUS WINAPI NCryptEnumAlgorithms(NCRYPT_PROV_HANDLE hProvider, DWORD dwAlgOperations,
                                            DWORD* pdwAlgCount, NCryptAlgorithmName** ppAlgList,
                                            DWORD dwFlags)
{
    const ProviderPointer provider = findProvider(hProvider);
    if (provider == nullptr)
        return NTE_INVALID_HANDLE;
    const SECURITY_STATUS status = provider->dll()->EnumAlgorithms(
        provider->inner(), dwAlgOperations, pdwAlgCount, ppAlgList, dwFlags);
    if (status == ERROR_SUCCESS)
        noteBuffer(*ppAlgList, provider->sharedDll());
    return status;
}

SECURITY_STATUS WINAPI NCryptIsAlgSupported(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszAlgId,
                                            DWORD dwFlags)
{
    const ProviderPointer provider = findProvider(hProvider);
    if (provider == nullptr)
        return NTE_INVALID_HANDLE;
    return provider->dll()->IsAlgSupported(provider->inner(), pszAlgId, dwFlags);
}

SECURITY_STATUS WINAPI NCryptEnumKeys(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszScope,
                                      NCryptKeyName** ppKeyName, PVOID* ppEnumState, DWORD dwFlags)
{
    const ProviderPointer provider = findProvider(hProvider);
    if (provider == nullptr)
        return NTE_INVALID_HANDLE;
    const SECURITY_STATUS status =
        provider->dll()->EnumKeys(provider->inner(), pszScope, ppKeyName, ppEnumState, dwFlags);
    if (status == ERROR_SUCCESS)
        noteBuffer(*ppKeyName, provider->sharedDll());
    if (ppEnumState != nullptr)
        noteBuffer(*ppEnumState, provider->sharedDll());
    return status;
}

SECURITY_STATUS WINAPI NCryptNotifyChangeKey(NCRYPT_PROV_HANDLE hProvider, HANDLE* phEvent,
                                             DWORD dwFlags)
{
    const ProviderPointer provider = findProvider(hProvider);
    if (provider == nullptr)
        return NTE_INVALID_HANDLE;
    return provider->dll()->NotifyChangeKey(provider->inner(), phEvent, dwFlags);
}

SECURITY_STATUS WINAPI NCryptFreeBuffer(PVOID pvInput)
{
    return freeBuffer(pvInput);
}

SECURITY_STATUS WINAPI NCryptFreeObject(NCRYPT_HANDLE hObject)
{
    const auto target = takeHandle(hObject);
    if (std::holds_alternative<std::monostate>(target))
        return NTE_INVALID_HANDLE;
    const auto* object = std::get_if<ObjectPointer>(&target);
    return object != nullptr ? (*object)->free() : ERROR_SUCCESS;
}

WINBOOL WINAPI NCryptIsKeyHandle(NCRYPT_KEY_HANDLE hKey)
{
    return findKey(hKey) != nullptr ? TRUE : FALSE;
}

SECURITY_STATUS WINAPI NCryptTranslateHandle(NCRYPT_PROV_HANDLE*, NCRYPT_KEY_HANDLE*, HCRYPTPROV,
                                             HCRYPTKEY, DWORD, DWORD)
{
    return NTE_NOT_SUPPORTED;
}
