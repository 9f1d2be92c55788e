// The provider side of CNG's key storage interface: the operation table that the key storage
// router asks for, and the callbacks in it. Declared here because MinGW-w64 has no
// ncrypt_provider.h; written from Microsoft's public documentation of NCrypt.
//
// Every callback has the signature of the NCrypt function that it serves, with the provider handle
// in front. A handle is the value that the provider returned when the object was opened.

#pragma once

// windows.h must come before the other two headers.
#include <windows.h>

#include <bcrypt.h>
#include <ncrypt.h>

// MinGW-w64 does not declare this one either.
#ifndef NCRYPT_ECC_CURVE_NAME_PROPERTY
#define NCRYPT_ECC_CURVE_NAME_PROPERTY L"ECCCurveName"
#endif

using NCryptOpenStorageProviderFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE* phProvider,
                                                             LPCWSTR pszProviderName,
                                                             DWORD dwFlags);
using NCryptOpenKeyFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE hProvider,
                                                 NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszKeyName,
                                                 DWORD dwLegacyKeySpec, DWORD dwFlags);
using NCryptCreatePersistedKeyFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE hProvider,
                                                            NCRYPT_KEY_HANDLE* phKey,
                                                            LPCWSTR pszAlgId, LPCWSTR pszKeyName,
                                                            DWORD dwLegacyKeySpec, DWORD dwFlags);
using NCryptGetProviderPropertyFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE hProvider,
                                                             LPCWSTR pszProperty, PBYTE pbOutput,
                                                             DWORD cbOutput, DWORD* pcbResult,
                                                             DWORD dwFlags);
using NCryptGetKeyPropertyFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE hProvider,
                                                        NCRYPT_KEY_HANDLE hKey, LPCWSTR pszProperty,
                                                        PBYTE pbOutput, DWORD cbOutput,
                                                        DWORD* pcbResult, DWORD dwFlags);
using NCryptSetProviderPropertyFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE hProvider,
                                                             LPCWSTR pszProperty, PBYTE pbInput,
                                                             DWORD cbInput, DWORD dwFlags);
using NCryptSetKeyPropertyFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE hProvider,
                                                        NCRYPT_KEY_HANDLE hKey, LPCWSTR pszProperty,
                                                        PBYTE pbInput, DWORD cbInput,
                                                        DWORD dwFlags);
using NCryptFinalizeKeyFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE hProvider,
                                                     NCRYPT_KEY_HANDLE hKey, DWORD dwFlags);
using NCryptDeleteKeyFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE hProvider,
                                                   NCRYPT_KEY_HANDLE hKey, DWORD dwFlags);
using NCryptFreeProviderFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE hProvider);
using NCryptFreeKeyFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE hProvider,
                                                 NCRYPT_KEY_HANDLE hKey);
using NCryptFreeBufferFn = SECURITY_STATUS(WINAPI*)(PVOID pvInput);
using NCryptEncryptFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE hProvider,
                                                 NCRYPT_KEY_HANDLE hKey, PBYTE pbInput,
                                                 DWORD cbInput, VOID* pPaddingInfo, PBYTE pbOutput,
                                                 DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags);
using NCryptDecryptFn = NCryptEncryptFn;
using NCryptIsAlgSupportedFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE hProvider,
                                                        LPCWSTR pszAlgId, DWORD dwFlags);
using NCryptEnumAlgorithmsFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE hProvider,
                                                        DWORD dwAlgOperations, DWORD* pdwAlgCount,
                                                        NCryptAlgorithmName** ppAlgList,
                                                        DWORD dwFlags);
using NCryptEnumKeysFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszScope,
                                                  NCryptKeyName** ppKeyName, PVOID* ppEnumState,
                                                  DWORD dwFlags);
using NCryptImportKeyFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE hProvider,
                                                   NCRYPT_KEY_HANDLE hImportKey,
                                                   LPCWSTR pszBlobType,
                                                   NCryptBufferDesc* pParameterList,
                                                   NCRYPT_KEY_HANDLE* phKey, PBYTE pbData,
                                                   DWORD cbData, DWORD dwFlags);
using NCryptExportKeyFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE hProvider,
                                                   NCRYPT_KEY_HANDLE hKey,
                                                   NCRYPT_KEY_HANDLE hExportKey,
                                                   LPCWSTR pszBlobType,
                                                   NCryptBufferDesc* pParameterList, PBYTE pbOutput,
                                                   DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags);
using NCryptSignHashFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE hProvider,
                                                  NCRYPT_KEY_HANDLE hKey, VOID* pPaddingInfo,
                                                  PBYTE pbHashValue, DWORD cbHashValue,
                                                  PBYTE pbSignature, DWORD cbSignature,
                                                  DWORD* pcbResult, DWORD dwFlags);
using NCryptVerifySignatureFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE hProvider,
                                                         NCRYPT_KEY_HANDLE hKey, VOID* pPaddingInfo,
                                                         PBYTE pbHashValue, DWORD cbHashValue,
                                                         PBYTE pbSignature, DWORD cbSignature,
                                                         DWORD dwFlags);
using NCryptPromptUserFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE hProvider,
                                                    NCRYPT_KEY_HANDLE hKey, LPCWSTR pszOperation,
                                                    DWORD dwFlags);
using NCryptNotifyChangeKeyFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE hProvider,
                                                         HANDLE* phEvent, DWORD dwFlags);
using NCryptSecretAgreementFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE hProvider,
                                                         NCRYPT_KEY_HANDLE hPrivKey,
                                                         NCRYPT_KEY_HANDLE hPubKey,
                                                         NCRYPT_SECRET_HANDLE* phAgreedSecret,
                                                         DWORD dwFlags);
using NCryptDeriveKeyFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE hProvider,
                                                   NCRYPT_SECRET_HANDLE hSharedSecret,
                                                   LPCWSTR pwszKDF,
                                                   NCryptBufferDesc* pParameterList,
                                                   PBYTE pbDerivedKey, DWORD cbDerivedKey,
                                                   DWORD* pcbResult, ULONG dwFlags);
using NCryptFreeSecretFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE hProvider,
                                                    NCRYPT_SECRET_HANDLE hSharedSecret);
using NCryptKeyDerivationFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE hProvider,
                                                       NCRYPT_KEY_HANDLE hKey,
                                                       NCryptBufferDesc* pParameterList,
                                                       PBYTE pbDerivedKey, DWORD cbDerivedKey,
                                                       DWORD* pcbResult, ULONG dwFlags);
using NCryptCreateClaimFn = SECURITY_STATUS(WINAPI*)(
    NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hSubjectKey, NCRYPT_KEY_HANDLE hAuthorityKey,
    DWORD dwClaimType, NCryptBufferDesc* pParameterList, PBYTE pbClaimBlob, DWORD cbClaimBlob,
    DWORD* pcbResult, DWORD dwFlags);
using NCryptVerifyClaimFn = SECURITY_STATUS(WINAPI*)(
    NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hSubjectKey, NCRYPT_KEY_HANDLE hAuthorityKey,
    DWORD dwClaimType, NCryptBufferDesc* pParameterList, PBYTE pbClaimBlob, DWORD cbClaimBlob,
    NCryptBufferDesc* pOutput, DWORD dwFlags);

// Version 2 of the table. The 4-byte version is followed by 4 bytes of padding.
struct NCRYPT_KEY_STORAGE_FUNCTION_TABLE {
    BCRYPT_INTERFACE_VERSION Version;
    NCryptOpenStorageProviderFn OpenProvider;
    NCryptOpenKeyFn OpenKey;
    NCryptCreatePersistedKeyFn CreatePersistedKey;
    NCryptGetProviderPropertyFn GetProviderProperty;
    NCryptGetKeyPropertyFn GetKeyProperty;
    NCryptSetProviderPropertyFn SetProviderProperty;
    NCryptSetKeyPropertyFn SetKeyProperty;
    NCryptFinalizeKeyFn FinalizeKey;
    NCryptDeleteKeyFn DeleteKey;
    NCryptFreeProviderFn FreeProvider;
    NCryptFreeKeyFn FreeKey;
    NCryptFreeBufferFn FreeBuffer;
    NCryptEncryptFn Encrypt;
    NCryptDecryptFn Decrypt;
    NCryptIsAlgSupportedFn IsAlgSupported;
    NCryptEnumAlgorithmsFn EnumAlgorithms;
    NCryptEnumKeysFn EnumKeys;
    NCryptImportKeyFn ImportKey;
    NCryptExportKeyFn ExportKey;
    NCryptSignHashFn SignHash;
    NCryptVerifySignatureFn VerifySignature;
    NCryptPromptUserFn PromptUser;
    NCryptNotifyChangeKeyFn NotifyChangeKey;
    NCryptSecretAgreementFn SecretAgreement;
    NCryptDeriveKeyFn DeriveKey;
    NCryptFreeSecretFn FreeSecret;
    NCryptKeyDerivationFn KeyDerivation;
    NCryptCreateClaimFn CreateClaim;
    NCryptVerifyClaimFn VerifyClaim;
};

// The type of the module's one export.
using GetKeyStorageInterfaceFn = NTSTATUS(WINAPI*)(
    LPCWSTR pszProviderName, NCRYPT_KEY_STORAGE_FUNCTION_TABLE** ppFunctionTable, DWORD dwFlags);

static_assert(sizeof(NCRYPT_KEY_STORAGE_FUNCTION_TABLE) == 8 + 29 * sizeof(void*));
