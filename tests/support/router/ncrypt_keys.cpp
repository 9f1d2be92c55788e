// Keys and secrets. Each function looks its handles up, calls the provider with the handles that the
// provider gave, and gives handles of the router for those that come back.

#include "base/cng.h"

#include "handles.h"

using namespace NV::router;

namespace {

// The provider's own handle of a second key, which may be absent. False if it is unknown or another
// provider's.
bool innerOf(NCRYPT_KEY_HANDLE handle, const ProviderPointer& provider, NCRYPT_KEY_HANDLE& inner)
{
    inner = 0;
    if (handle == 0)
        return true;
    const ObjectPointer key = findKey(handle);
    if (key == nullptr || key->provider() != provider)
        return false;
    inner = key->inner();
    return true;
}

// Calls a function that gives a new object of the provider, and gives a handle for it. A null output is
// for the provider to refuse.
template <typename Call>
SECURITY_STATUS giveObject(ProviderObject::Kind kind, const ProviderPointer& provider,
                           ULONG_PTR* handle, const Call& call)
{
    ULONG_PTR inner = 0;
    const SECURITY_STATUS status = call(handle != nullptr ? &inner : nullptr);
    if (status == ERROR_SUCCESS && handle != nullptr)
        *handle = inner != 0 ? addObject(kind, provider, inner) : 0;
    return status;
}

}  // namespace

SECURITY_STATUS WINAPI NCryptOpenKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey,
                                     LPCWSTR pszKeyName, DWORD dwLegacyKeySpec, DWORD dwFlags)
{
    const ProviderPointer provider = findProvider(hProvider);
    if (provider == nullptr)
        return NTE_INVALID_HANDLE;
    return giveObject(ProviderObject::Kind::key, provider, phKey, [&](ULONG_PTR* inner) {
        return provider->dll()->OpenKey(provider->inner(), inner, pszKeyName, dwLegacyKeySpec,
                                        dwFlags);
    });
}

SECURITY_STATUS WINAPI NCryptCreatePersistedKey(NCRYPT_PROV_HANDLE hProvider,
                                                NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszAlgId,
                                                LPCWSTR pszKeyName, DWORD dwLegacyKeySpec,
                                                DWORD dwFlags)
{
    const ProviderPointer provider = findProvider(hProvider);
    if (provider == nullptr)
        return NTE_INVALID_HANDLE;
    return giveObject(ProviderObject::Kind::key, provider, phKey, [&](ULONG_PTR* inner) {
        return provider->dll()->CreatePersistedKey(provider->inner(), inner, pszAlgId, pszKeyName,
                                                   dwLegacyKeySpec, dwFlags);
    });
}

SECURITY_STATUS WINAPI NCryptFinalizeKey(NCRYPT_KEY_HANDLE hKey, DWORD dwFlags)
{
    const ObjectPointer key = findKey(hKey);
    if (key == nullptr)
        return NTE_INVALID_HANDLE;
    return key->dll()->FinalizeKey(key->providerHandle(), key->inner(), dwFlags);
}

SECURITY_STATUS WINAPI NCryptDeleteKey(NCRYPT_KEY_HANDLE hKey, DWORD dwFlags)
{
    const ObjectPointer key = findKey(hKey);
    if (key == nullptr)
        return NTE_INVALID_HANDLE;
    const SECURITY_STATUS status =
        key->dll()->DeleteKey(key->providerHandle(), key->inner(), dwFlags);
    if (status == ERROR_SUCCESS) {
        key->forget();
        takeHandle(hKey);
    }
    return status;
}

SECURITY_STATUS WINAPI NCryptImportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hImportKey,
                                       LPCWSTR pszBlobType, NCryptBufferDesc* pParameterList,
                                       NCRYPT_KEY_HANDLE* phKey, PBYTE pbData, DWORD cbData,
                                       DWORD dwFlags)
{
    const ProviderPointer provider = findProvider(hProvider);
    NCRYPT_KEY_HANDLE importKey = 0;
    if (provider == nullptr || !innerOf(hImportKey, provider, importKey))
        return NTE_INVALID_HANDLE;
    return giveObject(ProviderObject::Kind::key, provider, phKey, [&](ULONG_PTR* inner) {
        return provider->dll()->ImportKey(provider->inner(), importKey, pszBlobType, pParameterList,
                                          inner, pbData, cbData, dwFlags);
    });
}

SECURITY_STATUS WINAPI NCryptExportKey(NCRYPT_KEY_HANDLE hKey, NCRYPT_KEY_HANDLE hExportKey,
                                       LPCWSTR pszBlobType, NCryptBufferDesc* pParameterList,
                                       PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult,
                                       DWORD dwFlags)
{
    const ObjectPointer key = findKey(hKey);
    NCRYPT_KEY_HANDLE exportKey = 0;
    if (key == nullptr || !innerOf(hExportKey, key->provider(), exportKey))
        return NTE_INVALID_HANDLE;
    return key->dll()->ExportKey(key->providerHandle(), key->inner(), exportKey, pszBlobType,
                                 pParameterList, pbOutput, cbOutput, pcbResult, dwFlags);
}

SECURITY_STATUS WINAPI NCryptSignHash(NCRYPT_KEY_HANDLE hKey, VOID* pPaddingInfo, PBYTE pbHashValue,
                                      DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                      DWORD* pcbResult, DWORD dwFlags)
{
    const ObjectPointer key = findKey(hKey);
    if (key == nullptr)
        return NTE_INVALID_HANDLE;
    return key->dll()->SignHash(key->providerHandle(), key->inner(), pPaddingInfo, pbHashValue,
                                cbHashValue, pbSignature, cbSignature, pcbResult, dwFlags);
}

SECURITY_STATUS WINAPI NCryptVerifySignature(NCRYPT_KEY_HANDLE hKey, VOID* pPaddingInfo,
                                             PBYTE pbHashValue, DWORD cbHashValue,
                                             PBYTE pbSignature, DWORD cbSignature, DWORD dwFlags)
{
    const ObjectPointer key = findKey(hKey);
    if (key == nullptr)
        return NTE_INVALID_HANDLE;
    return key->dll()->VerifySignature(key->providerHandle(), key->inner(), pPaddingInfo,
                                       pbHashValue, cbHashValue, pbSignature, cbSignature, dwFlags);
}

SECURITY_STATUS WINAPI NCryptEncrypt(NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput,
                                     VOID* pPaddingInfo, PBYTE pbOutput, DWORD cbOutput,
                                     DWORD* pcbResult, DWORD dwFlags)
{
    const ObjectPointer key = findKey(hKey);
    if (key == nullptr)
        return NTE_INVALID_HANDLE;
    return key->dll()->Encrypt(key->providerHandle(), key->inner(), pbInput, cbInput, pPaddingInfo,
                               pbOutput, cbOutput, pcbResult, dwFlags);
}

SECURITY_STATUS WINAPI NCryptDecrypt(NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput,
                                     VOID* pPaddingInfo, PBYTE pbOutput, DWORD cbOutput,
                                     DWORD* pcbResult, DWORD dwFlags)
{
    const ObjectPointer key = findKey(hKey);
    if (key == nullptr)
        return NTE_INVALID_HANDLE;
    return key->dll()->Decrypt(key->providerHandle(), key->inner(), pbInput, cbInput, pPaddingInfo,
                               pbOutput, cbOutput, pcbResult, dwFlags);
}

SECURITY_STATUS WINAPI NCryptSecretAgreement(NCRYPT_KEY_HANDLE hPrivKey, NCRYPT_KEY_HANDLE hPubKey,
                                             NCRYPT_SECRET_HANDLE* phAgreedSecret, DWORD dwFlags)
{
    const ObjectPointer key = findKey(hPrivKey);
    NCRYPT_KEY_HANDLE peer = 0;
    if (key == nullptr || hPubKey == 0 || !innerOf(hPubKey, key->provider(), peer))
        return NTE_INVALID_HANDLE;
    return giveObject(ProviderObject::Kind::secret, key->provider(), phAgreedSecret,
                      [&](ULONG_PTR* inner) {
                          return key->dll()->SecretAgreement(key->providerHandle(), key->inner(),
                                                             peer, inner, dwFlags);
                      });
}

SECURITY_STATUS WINAPI NCryptDeriveKey(NCRYPT_SECRET_HANDLE hSharedSecret, LPCWSTR pwszKDF,
                                       NCryptBufferDesc* pParameterList, PBYTE pbDerivedKey,
                                       DWORD cbDerivedKey, DWORD* pcbResult, ULONG dwFlags)
{
    const ObjectPointer secret = findSecret(hSharedSecret);
    if (secret == nullptr)
        return NTE_INVALID_HANDLE;
    return secret->dll()->DeriveKey(secret->providerHandle(), secret->inner(), pwszKDF,
                                    pParameterList, pbDerivedKey, cbDerivedKey, pcbResult, dwFlags);
}
