// The module's export, its operation table and its entry points: each finds the provider behind the
// handle and forwards to the operation of the same name.

#include "base/cng.h"

#include <cstdlib>

#include "base/last_error.h"
#include "logger/trace.h"
#include "nvvtoken/nvvtoken.h"

namespace {

// The body of an entry point that acts on an open provider. It does not log arguments or measure
// time; the provider's operation does both. Like each entry point, it leaves the thread's last error
// as it found it. Compat: an unknown handle throws std::out_of_range, so
// that the log shows ENTER without LEAVE.
template <typename... Parameters, typename... Arguments>
SECURITY_STATUS dispatch(const NV::Site& site, NCRYPT_PROV_HANDLE hProvider,
                         SECURITY_STATUS (NV::Provider::*operation)(Parameters...),
                         Arguments... arguments)
{
    const NV::LastErrorKept kept;
    const NV::Trace trace(site);
    SECURITY_STATUS status = NTE_INVALID_HANDLE;
    {
        const auto registered = NV::ProviderManager::instance().find(hProvider);
        if (registered != nullptr)
            status = (registered->provider()->*operation)(arguments...);
    }
    trace.leave();
    return status;
}

}  // namespace

SECURITY_STATUS WINAPI NVKSPOpenProvider(NCRYPT_PROV_HANDLE* phProvider, LPCWSTR pszProviderName,
                                         DWORD dwFlags)
{
    const NV::LastErrorKept kept;
    const NV::Trace trace(NV_HERE);
    return trace.leaving(
        NV::ProviderManager::instance().OpenProvider(phProvider, pszProviderName, dwFlags));
}

SECURITY_STATUS WINAPI NVKSPOpenKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey,
                                    LPCWSTR pszKeyName, DWORD dwLegacyKeySpec, DWORD dwFlags)
{
    return dispatch(NV_HERE, hProvider, &NV::Provider::OpenKey, phKey, pszKeyName, dwLegacyKeySpec,
                    dwFlags);
}

SECURITY_STATUS WINAPI NVKSPCreatePersistedKey(NCRYPT_PROV_HANDLE hProvider,
                                               NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszAlgId,
                                               LPCWSTR pszKeyName, DWORD dwLegacyKeySpec,
                                               DWORD dwFlags)
{
    return dispatch(NV_HERE, hProvider, &NV::Provider::CreatePersistedKey, phKey, pszAlgId,
                    pszKeyName, dwLegacyKeySpec, dwFlags);
}

SECURITY_STATUS WINAPI NVKSPGetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty,
                                                PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult,
                                                DWORD dwFlags)
{
    return dispatch(NV_HERE, hProvider, &NV::Provider::GetProviderProperty, pszProperty, pbOutput,
                    cbOutput, pcbResult, dwFlags);
}

SECURITY_STATUS WINAPI NVKSPGetKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                           LPCWSTR pszProperty, PBYTE pbOutput, DWORD cbOutput,
                                           DWORD* pcbResult, DWORD dwFlags)
{
    return dispatch(NV_HERE, hProvider, &NV::Provider::GetKeyProperty, hKey, pszProperty, pbOutput,
                    cbOutput, pcbResult, dwFlags);
}

SECURITY_STATUS WINAPI NVKSPSetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty,
                                                PBYTE pbInput, DWORD cbInput, DWORD dwFlags)
{
    return dispatch(NV_HERE, hProvider, &NV::Provider::SetProviderProperty, pszProperty, pbInput,
                    cbInput, dwFlags);
}

SECURITY_STATUS WINAPI NVKSPSetKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                           LPCWSTR pszProperty, PBYTE pbInput, DWORD cbInput,
                                           DWORD dwFlags)
{
    return dispatch(NV_HERE, hProvider, &NV::Provider::SetKeyProperty, hKey, pszProperty, pbInput,
                    cbInput, dwFlags);
}

SECURITY_STATUS WINAPI NVKSPFinalizeKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                        DWORD dwFlags)
{
    return dispatch(NV_HERE, hProvider, &NV::Provider::FinalizeKey, hKey, dwFlags);
}

SECURITY_STATUS WINAPI NVKSPDeleteKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                      DWORD dwFlags)
{
    return dispatch(NV_HERE, hProvider, &NV::Provider::DeleteKey, hKey, dwFlags);
}

SECURITY_STATUS WINAPI NVKSPFreeProvider(NCRYPT_PROV_HANDLE hProvider)
{
    const NV::LastErrorKept kept;
    const NV::Trace trace(NV_HERE);
    return trace.leaving(NV::ProviderManager::instance().FreeProvider(hProvider));
}

SECURITY_STATUS WINAPI NVKSPFreeKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey)
{
    return dispatch(NV_HERE, hProvider, &NV::Provider::FreeKey, hKey);
}

// Operations allocate every block that they return on the C heap.
SECURITY_STATUS WINAPI NVKSPFreeBuffer(PVOID pvInput)
{
    const NV::LastErrorKept kept;
    const NV::Trace trace(NV_HERE);
    const SECURITY_STATUS status = pvInput != nullptr ? ERROR_SUCCESS : NTE_INVALID_PARAMETER;
    std::free(pvInput);
    return trace.leaving(status);
}

SECURITY_STATUS WINAPI NVKSPEncrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                    PBYTE pbInput, DWORD cbInput, VOID* pPaddingInfo,
                                    PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags)
{
    return dispatch(NV_HERE, hProvider, &NV::Provider::Encrypt, hKey, pbInput, cbInput,
                    pPaddingInfo, pbOutput, cbOutput, pcbResult, dwFlags);
}

SECURITY_STATUS WINAPI NVKSPDecrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                    PBYTE pbInput, DWORD cbInput, VOID* pPaddingInfo,
                                    PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags)
{
    return dispatch(NV_HERE, hProvider, &NV::Provider::Decrypt, hKey, pbInput, cbInput,
                    pPaddingInfo, pbOutput, cbOutput, pcbResult, dwFlags);
}

SECURITY_STATUS WINAPI NVKSPIsAlgSupported(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszAlgId,
                                           DWORD dwFlags)
{
    return dispatch(NV_HERE, hProvider, &NV::Provider::IsAlgSupported, pszAlgId, dwFlags);
}

SECURITY_STATUS WINAPI NVKSPEnumAlgorithms(NCRYPT_PROV_HANDLE hProvider, DWORD dwAlgOperations,
                                           DWORD* pdwAlgCount, NCryptAlgorithmName** ppAlgList,
                                           DWORD dwFlags)
{
    return dispatch(NV_HERE, hProvider, &NV::Provider::EnumAlgorithms, dwAlgOperations, pdwAlgCount,
                    ppAlgList, dwFlags);
}

SECURITY_STATUS WINAPI NVKSPEnumKeys(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszScope,
                                     NCryptKeyName** ppKeyName, PVOID* ppEnumState, DWORD dwFlags)
{
    return dispatch(NV_HERE, hProvider, &NV::Provider::EnumKeys, pszScope, ppKeyName, ppEnumState,
                    dwFlags);
}

SECURITY_STATUS WINAPI NVKSPImportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hImportKey,
                                      LPCWSTR pszBlobType, NCryptBufferDesc* pParameterList,
                                      NCRYPT_KEY_HANDLE* phKey, PBYTE pbData, DWORD cbData,
                                      DWORD dwFlags)
{
    return dispatch(NV_HERE, hProvider, &NV::Provider::ImportKey, hImportKey, pszBlobType,
                    pParameterList, phKey, pbData, cbData, dwFlags);
}

SECURITY_STATUS WINAPI NVKSPExportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                      NCRYPT_KEY_HANDLE hExportKey, LPCWSTR pszBlobType,
                                      NCryptBufferDesc* pParameterList, PBYTE pbOutput,
                                      DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags)
{
    return dispatch(NV_HERE, hProvider, &NV::Provider::ExportKey, hKey, hExportKey, pszBlobType,
                    pParameterList, pbOutput, cbOutput, pcbResult, dwFlags);
}

SECURITY_STATUS WINAPI NVKSPSignHash(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                     VOID* pPaddingInfo, PBYTE pbHashValue, DWORD cbHashValue,
                                     PBYTE pbSignature, DWORD cbSignature, DWORD* pcbResult,
                                     DWORD dwFlags)
{
    return dispatch(NV_HERE, hProvider, &NV::Provider::SignHash, hKey, pPaddingInfo, pbHashValue,
                    cbHashValue, pbSignature, cbSignature, pcbResult, dwFlags);
}

SECURITY_STATUS WINAPI NVKSPVerifySignature(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                            VOID* pPaddingInfo, PBYTE pbHashValue,
                                            DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                            DWORD dwFlags)
{
    return dispatch(NV_HERE, hProvider, &NV::Provider::VerifySignature, hKey, pPaddingInfo,
                    pbHashValue, cbHashValue, pbSignature, cbSignature, dwFlags);
}

SECURITY_STATUS WINAPI NVKSPPromptUser(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                       LPCWSTR pszOperation, DWORD dwFlags)
{
    return dispatch(NV_HERE, hProvider, &NV::Provider::PromptUser, hKey, pszOperation, dwFlags);
}

SECURITY_STATUS WINAPI NVKSPNotifyChangeKey(NCRYPT_PROV_HANDLE hProvider, HANDLE* phEvent,
                                            DWORD dwFlags)
{
    return dispatch(NV_HERE, hProvider, &NV::Provider::NotifyChangeKey, phEvent, dwFlags);
}

SECURITY_STATUS WINAPI NVKSPSecretAgreement(NCRYPT_PROV_HANDLE hProvider,
                                            NCRYPT_KEY_HANDLE hPrivKey, NCRYPT_KEY_HANDLE hPubKey,
                                            NCRYPT_SECRET_HANDLE* phAgreedSecret, DWORD dwFlags)
{
    return dispatch(NV_HERE, hProvider, &NV::Provider::SecretAgreement, hPrivKey, hPubKey,
                    phAgreedSecret, dwFlags);
}

SECURITY_STATUS WINAPI NVKSPDeriveKey(NCRYPT_PROV_HANDLE hProvider,
                                      NCRYPT_SECRET_HANDLE hSharedSecret, LPCWSTR pwszKDF,
                                      NCryptBufferDesc* pParameterList, PBYTE pbDerivedKey,
                                      DWORD cbDerivedKey, DWORD* pcbResult, ULONG dwFlags)
{
    return dispatch(NV_HERE, hProvider, &NV::Provider::DeriveKey, hSharedSecret, pwszKDF,
                    pParameterList, pbDerivedKey, cbDerivedKey, pcbResult, dwFlags);
}

SECURITY_STATUS WINAPI NVKSPFreeSecret(NCRYPT_PROV_HANDLE hProvider,
                                       NCRYPT_SECRET_HANDLE hSharedSecret)
{
    return dispatch(NV_HERE, hProvider, &NV::Provider::FreeSecret, hSharedSecret);
}

namespace {

// The table for the key storage router. Direct key derivation and claims are not supported.
NCRYPT_KEY_STORAGE_FUNCTION_TABLE functionTable = {
    .Version = NCRYPT_KEY_STORAGE_INTERFACE_VERSION_2,
    .OpenProvider = NVKSPOpenProvider,
    .OpenKey = NVKSPOpenKey,
    .CreatePersistedKey = NVKSPCreatePersistedKey,
    .GetProviderProperty = NVKSPGetProviderProperty,
    .GetKeyProperty = NVKSPGetKeyProperty,
    .SetProviderProperty = NVKSPSetProviderProperty,
    .SetKeyProperty = NVKSPSetKeyProperty,
    .FinalizeKey = NVKSPFinalizeKey,
    .DeleteKey = NVKSPDeleteKey,
    .FreeProvider = NVKSPFreeProvider,
    .FreeKey = NVKSPFreeKey,
    .FreeBuffer = NVKSPFreeBuffer,
    .Encrypt = NVKSPEncrypt,
    .Decrypt = NVKSPDecrypt,
    .IsAlgSupported = NVKSPIsAlgSupported,
    .EnumAlgorithms = NVKSPEnumAlgorithms,
    .EnumKeys = NVKSPEnumKeys,
    .ImportKey = NVKSPImportKey,
    .ExportKey = NVKSPExportKey,
    .SignHash = NVKSPSignHash,
    .VerifySignature = NVKSPVerifySignature,
    .PromptUser = NVKSPPromptUser,
    .NotifyChangeKey = NVKSPNotifyChangeKey,
    .SecretAgreement = NVKSPSecretAgreement,
    .DeriveKey = NVKSPDeriveKey,
    .FreeSecret = NVKSPFreeSecret,
    .KeyDerivation = nullptr,
    .CreateClaim = nullptr,
    .VerifyClaim = nullptr,
};

}  // namespace

// The module's one export. It ignores name and flags, because the module contains one provider.
extern "C" NTSTATUS WINAPI
GetKeyStorageInterface(LPCWSTR, NCRYPT_KEY_STORAGE_FUNCTION_TABLE** ppFunctionTable, DWORD)
{
    *ppFunctionTable = &functionTable;
    return 0;
}
