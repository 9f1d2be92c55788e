// The module's export, its operation table and its entry points: each finds the provider behind the
// handle and forwards to the operation of the same name.

#include "base/cng.h"

#include <cstdlib>
#include <exception>
#include <new>
#include <system_error>

#include "base/last_error.h"
#include "base/scope_exit.h"
#include "config/mode.h"
#include "logger/operation.h"
#include "logger/trace.h"
#include "nvvtoken/nvvtoken.h"

namespace {

// The two ways of an entry point. Neither logs arguments or measures time; the provider's operation does
// both.

// Compat: what is thrown inside leaves the entry point, so that the log shows ENTER without LEAVE.
template <typename Work>
SECURITY_STATUS uncaught(const NV::Site& site, const Work& work)
{
    const NV::Trace trace(site);
    return trace.leaving(work());
}

void logException(const NV::Site& site, const char* what)
{
    NV::quietly([&] { NV_UNDER(ERR, site, "Caught Exception: %s", what); });
}

// Whatever is thrown inside becomes a status.
template <typename Work>
SECURITY_STATUS contained(const NV::Site& site, const Work& work) noexcept
{
    try {
        return uncaught(site, work);
    } catch (const std::bad_alloc& error) {
        logException(site, error.what());
        return NTE_NO_MEMORY;
    } catch (const std::system_error& error) {
        logException(site, error.what());
        // The platform allocates a lock when it is first taken.
        if (error.code() == std::errc::not_enough_memory)
            return NTE_NO_MEMORY;
    } catch (const std::exception& error) {
        logException(site, error.what());
    } catch (...) {
        logException(site, "unknown");
    }
    return NTE_INTERNAL_ERROR;
}

template <typename Work>
SECURITY_STATUS enter(const NV::Site& site, const Work& work)
{
    return NV::mode().containsExceptions() ? contained(site, work) : uncaught(site, work);
}

// The two kinds of entry points. Both leave the thread's last error as they found it.

// It tells or refuses something.
template <typename Work>
SECURITY_STATUS answer(const NV::Site& site, const Work& work)
{
    const NV::LastErrorKept kept;
    return enter(site, work);
}

// It does something, and its end has a record of its own.
template <typename Work>
SECURITY_STATUS perform(const NV::Site& site, const Work& work)
{
    const NV::LastErrorKept kept;
    const NV::Operation operation(site);
    return operation.end(enter(site, work));
}

// Calls the operation of the provider behind the handle. Compat: in classic, an unknown handle throws
// std::out_of_range.
template <typename... Parameters, typename... Arguments>
auto withProvider(NCRYPT_PROV_HANDLE hProvider,
                  SECURITY_STATUS (NV::Provider::*operation)(Parameters...), Arguments... arguments)
{
    return [=]() -> SECURITY_STATUS {
        const auto registered = NV::ProviderManager::instance().find(hProvider);
        if (registered == nullptr)
            return NTE_INVALID_HANDLE;
        return (registered->provider()->*operation)(arguments...);
    };
}

}  // namespace

SECURITY_STATUS WINAPI NVKSPOpenProvider(NCRYPT_PROV_HANDLE* phProvider, LPCWSTR pszProviderName,
                                         DWORD dwFlags)
{
    return perform(NV_HERE, [&] {
        return NV::ProviderManager::instance().OpenProvider(phProvider, pszProviderName, dwFlags);
    });
}

SECURITY_STATUS WINAPI NVKSPOpenKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey,
                                    LPCWSTR pszKeyName, DWORD dwLegacyKeySpec, DWORD dwFlags)
{
    return perform(NV_HERE, withProvider(hProvider, &NV::Provider::OpenKey, phKey, pszKeyName,
                                         dwLegacyKeySpec, dwFlags));
}

SECURITY_STATUS WINAPI NVKSPCreatePersistedKey(NCRYPT_PROV_HANDLE hProvider,
                                               NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszAlgId,
                                               LPCWSTR pszKeyName, DWORD dwLegacyKeySpec,
                                               DWORD dwFlags)
{
    return answer(NV_HERE, withProvider(hProvider, &NV::Provider::CreatePersistedKey, phKey,
                                        pszAlgId, pszKeyName, dwLegacyKeySpec, dwFlags));
}

SECURITY_STATUS WINAPI NVKSPGetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty,
                                                PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult,
                                                DWORD dwFlags)
{
    return answer(NV_HERE, withProvider(hProvider, &NV::Provider::GetProviderProperty, pszProperty,
                                        pbOutput, cbOutput, pcbResult, dwFlags));
}

SECURITY_STATUS WINAPI NVKSPGetKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                           LPCWSTR pszProperty, PBYTE pbOutput, DWORD cbOutput,
                                           DWORD* pcbResult, DWORD dwFlags)
{
    return answer(NV_HERE, withProvider(hProvider, &NV::Provider::GetKeyProperty, hKey, pszProperty,
                                        pbOutput, cbOutput, pcbResult, dwFlags));
}

SECURITY_STATUS WINAPI NVKSPSetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty,
                                                PBYTE pbInput, DWORD cbInput, DWORD dwFlags)
{
    return answer(NV_HERE, withProvider(hProvider, &NV::Provider::SetProviderProperty, pszProperty,
                                        pbInput, cbInput, dwFlags));
}

SECURITY_STATUS WINAPI NVKSPSetKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                           LPCWSTR pszProperty, PBYTE pbInput, DWORD cbInput,
                                           DWORD dwFlags)
{
    return answer(NV_HERE, withProvider(hProvider, &NV::Provider::SetKeyProperty, hKey, pszProperty,
                                        pbInput, cbInput, dwFlags));
}

SECURITY_STATUS WINAPI NVKSPFinalizeKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                        DWORD dwFlags)
{
    return answer(NV_HERE, withProvider(hProvider, &NV::Provider::FinalizeKey, hKey, dwFlags));
}

SECURITY_STATUS WINAPI NVKSPDeleteKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                      DWORD dwFlags)
{
    return answer(NV_HERE, withProvider(hProvider, &NV::Provider::DeleteKey, hKey, dwFlags));
}

SECURITY_STATUS WINAPI NVKSPFreeProvider(NCRYPT_PROV_HANDLE hProvider)
{
    return perform(NV_HERE,
                   [&] { return NV::ProviderManager::instance().FreeProvider(hProvider); });
}

SECURITY_STATUS WINAPI NVKSPFreeKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey)
{
    return perform(NV_HERE, withProvider(hProvider, &NV::Provider::FreeKey, hKey));
}

// Operations allocate every block that they return on the C heap.
SECURITY_STATUS WINAPI NVKSPFreeBuffer(PVOID pvInput)
{
    return answer(NV_HERE, [=]() -> SECURITY_STATUS {
        const SECURITY_STATUS status = pvInput != nullptr ? ERROR_SUCCESS : NTE_INVALID_PARAMETER;
        std::free(pvInput);
        return status;
    });
}

SECURITY_STATUS WINAPI NVKSPEncrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                    PBYTE pbInput, DWORD cbInput, VOID* pPaddingInfo,
                                    PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags)
{
    return perform(NV_HERE, withProvider(hProvider, &NV::Provider::Encrypt, hKey, pbInput, cbInput,
                                         pPaddingInfo, pbOutput, cbOutput, pcbResult, dwFlags));
}

SECURITY_STATUS WINAPI NVKSPDecrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                    PBYTE pbInput, DWORD cbInput, VOID* pPaddingInfo,
                                    PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags)
{
    return perform(NV_HERE, withProvider(hProvider, &NV::Provider::Decrypt, hKey, pbInput, cbInput,
                                         pPaddingInfo, pbOutput, cbOutput, pcbResult, dwFlags));
}

SECURITY_STATUS WINAPI NVKSPIsAlgSupported(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszAlgId,
                                           DWORD dwFlags)
{
    return answer(NV_HERE,
                  withProvider(hProvider, &NV::Provider::IsAlgSupported, pszAlgId, dwFlags));
}

SECURITY_STATUS WINAPI NVKSPEnumAlgorithms(NCRYPT_PROV_HANDLE hProvider, DWORD dwAlgOperations,
                                           DWORD* pdwAlgCount, NCryptAlgorithmName** ppAlgList,
                                           DWORD dwFlags)
{
    return answer(NV_HERE, withProvider(hProvider, &NV::Provider::EnumAlgorithms, dwAlgOperations,
                                        pdwAlgCount, ppAlgList, dwFlags));
}

SECURITY_STATUS WINAPI NVKSPEnumKeys(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszScope,
                                     NCryptKeyName** ppKeyName, PVOID* ppEnumState, DWORD dwFlags)
{
    return answer(NV_HERE, withProvider(hProvider, &NV::Provider::EnumKeys, pszScope, ppKeyName,
                                        ppEnumState, dwFlags));
}

SECURITY_STATUS WINAPI NVKSPImportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hImportKey,
                                      LPCWSTR pszBlobType, NCryptBufferDesc* pParameterList,
                                      NCRYPT_KEY_HANDLE* phKey, PBYTE pbData, DWORD cbData,
                                      DWORD dwFlags)
{
    return perform(NV_HERE,
                   withProvider(hProvider, &NV::Provider::ImportKey, hImportKey, pszBlobType,
                                pParameterList, phKey, pbData, cbData, dwFlags));
}

SECURITY_STATUS WINAPI NVKSPExportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                      NCRYPT_KEY_HANDLE hExportKey, LPCWSTR pszBlobType,
                                      NCryptBufferDesc* pParameterList, PBYTE pbOutput,
                                      DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags)
{
    return perform(NV_HERE,
                   withProvider(hProvider, &NV::Provider::ExportKey, hKey, hExportKey, pszBlobType,
                                pParameterList, pbOutput, cbOutput, pcbResult, dwFlags));
}

SECURITY_STATUS WINAPI NVKSPSignHash(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                     VOID* pPaddingInfo, PBYTE pbHashValue, DWORD cbHashValue,
                                     PBYTE pbSignature, DWORD cbSignature, DWORD* pcbResult,
                                     DWORD dwFlags)
{
    return perform(NV_HERE,
                   withProvider(hProvider, &NV::Provider::SignHash, hKey, pPaddingInfo, pbHashValue,
                                cbHashValue, pbSignature, cbSignature, pcbResult, dwFlags));
}

SECURITY_STATUS WINAPI NVKSPVerifySignature(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                            VOID* pPaddingInfo, PBYTE pbHashValue,
                                            DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                            DWORD dwFlags)
{
    return perform(NV_HERE,
                   withProvider(hProvider, &NV::Provider::VerifySignature, hKey, pPaddingInfo,
                                pbHashValue, cbHashValue, pbSignature, cbSignature, dwFlags));
}

SECURITY_STATUS WINAPI NVKSPPromptUser(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                       LPCWSTR pszOperation, DWORD dwFlags)
{
    return answer(NV_HERE,
                  withProvider(hProvider, &NV::Provider::PromptUser, hKey, pszOperation, dwFlags));
}

SECURITY_STATUS WINAPI NVKSPNotifyChangeKey(NCRYPT_PROV_HANDLE hProvider, HANDLE* phEvent,
                                            DWORD dwFlags)
{
    return answer(NV_HERE,
                  withProvider(hProvider, &NV::Provider::NotifyChangeKey, phEvent, dwFlags));
}

SECURITY_STATUS WINAPI NVKSPSecretAgreement(NCRYPT_PROV_HANDLE hProvider,
                                            NCRYPT_KEY_HANDLE hPrivKey, NCRYPT_KEY_HANDLE hPubKey,
                                            NCRYPT_SECRET_HANDLE* phAgreedSecret, DWORD dwFlags)
{
    return perform(NV_HERE, withProvider(hProvider, &NV::Provider::SecretAgreement, hPrivKey,
                                         hPubKey, phAgreedSecret, dwFlags));
}

SECURITY_STATUS WINAPI NVKSPDeriveKey(NCRYPT_PROV_HANDLE hProvider,
                                      NCRYPT_SECRET_HANDLE hSharedSecret, LPCWSTR pwszKDF,
                                      NCryptBufferDesc* pParameterList, PBYTE pbDerivedKey,
                                      DWORD cbDerivedKey, DWORD* pcbResult, ULONG dwFlags)
{
    return perform(NV_HERE,
                   withProvider(hProvider, &NV::Provider::DeriveKey, hSharedSecret, pwszKDF,
                                pParameterList, pbDerivedKey, cbDerivedKey, pcbResult, dwFlags));
}

SECURITY_STATUS WINAPI NVKSPFreeSecret(NCRYPT_PROV_HANDLE hProvider,
                                       NCRYPT_SECRET_HANDLE hSharedSecret)
{
    return perform(NV_HERE, withProvider(hProvider, &NV::Provider::FreeSecret, hSharedSecret));
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
