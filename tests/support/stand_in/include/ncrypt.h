// The part of CNG's key storage that the module's core and its tests use: declarations alone.

#pragma once

#include <bcrypt.h>

using SECURITY_STATUS = LONG;
using NCRYPT_PROV_HANDLE = ULONG_PTR;
using NCRYPT_HANDLE = ULONG_PTR;
using NCRYPT_KEY_HANDLE = ULONG_PTR;
using NCRYPT_SECRET_HANDLE = ULONG_PTR;
using NCryptBuffer = BCryptBuffer;
using NCryptBufferDesc = BCryptBufferDesc;

struct NCryptAlgorithmName {
    LPWSTR pszName;
    DWORD dwClass;
    DWORD dwAlgOperations;
    DWORD dwFlags;
};
struct NCryptKeyName {
    LPWSTR pszName;
    LPWSTR pszAlgid;
    DWORD dwLegacyKeySpec;
    DWORD dwFlags;
};

inline constexpr HRESULT NTE_BAD_LEN = static_cast<HRESULT>(0x80090004);
inline constexpr HRESULT NTE_BAD_DATA = static_cast<HRESULT>(0x80090005);
inline constexpr HRESULT NTE_BAD_SIGNATURE = static_cast<HRESULT>(0x80090006);
inline constexpr HRESULT NTE_BAD_FLAGS = static_cast<HRESULT>(0x80090009);
inline constexpr HRESULT NTE_NO_KEY = static_cast<HRESULT>(0x8009000D);
inline constexpr HRESULT NTE_NO_MEMORY = static_cast<HRESULT>(0x8009000E);
inline constexpr HRESULT NTE_NOT_FOUND = static_cast<HRESULT>(0x80090011);
inline constexpr HRESULT NTE_BAD_KEYSET = static_cast<HRESULT>(0x80090016);
inline constexpr HRESULT NTE_SILENT_CONTEXT = static_cast<HRESULT>(0x80090022);
inline constexpr HRESULT NTE_INVALID_HANDLE = static_cast<HRESULT>(0x80090026);
inline constexpr HRESULT NTE_INVALID_PARAMETER = static_cast<HRESULT>(0x80090027);
inline constexpr HRESULT NTE_BUFFER_TOO_SMALL = static_cast<HRESULT>(0x80090028);
inline constexpr HRESULT NTE_NOT_SUPPORTED = static_cast<HRESULT>(0x80090029);
inline constexpr HRESULT NTE_NO_MORE_ITEMS = static_cast<HRESULT>(0x8009002A);
inline constexpr HRESULT NTE_INTERNAL_ERROR = static_cast<HRESULT>(0x8009002D);
inline constexpr HRESULT NTE_USER_CANCELLED = static_cast<HRESULT>(0x80090036);
inline constexpr HRESULT NTE_PASSWORD_CHANGE_REQUIRED = static_cast<HRESULT>(0x80090037);
inline constexpr HRESULT SCARD_W_UNSUPPORTED_CARD = static_cast<HRESULT>(0x80100065);
inline constexpr HRESULT SCARD_W_REMOVED_CARD = static_cast<HRESULT>(0x80100069);
inline constexpr HRESULT SCARD_W_WRONG_CHV = static_cast<HRESULT>(0x8010006B);
inline constexpr HRESULT SCARD_W_CHV_BLOCKED = static_cast<HRESULT>(0x8010006C);
inline constexpr HRESULT SCARD_W_CARD_NOT_AUTHENTICATED = static_cast<HRESULT>(0x8010006F);

inline constexpr wchar_t NCRYPT_NAME_PROPERTY[] = L"Name";
inline constexpr wchar_t NCRYPT_UNIQUE_NAME_PROPERTY[] = L"Unique Name";
inline constexpr wchar_t NCRYPT_ALGORITHM_PROPERTY[] = L"Algorithm Name";
inline constexpr wchar_t NCRYPT_ALGORITHM_GROUP_PROPERTY[] = L"Algorithm Group";
inline constexpr wchar_t NCRYPT_EXPORT_POLICY_PROPERTY[] = L"Export Policy";
inline constexpr wchar_t NCRYPT_IMPL_TYPE_PROPERTY[] = L"Impl Type";
inline constexpr wchar_t NCRYPT_KEY_USAGE_PROPERTY[] = L"Key Usage";
inline constexpr wchar_t NCRYPT_PROVIDER_HANDLE_PROPERTY[] = L"Provider Handle";
inline constexpr wchar_t NCRYPT_VERSION_PROPERTY[] = L"Version";
inline constexpr wchar_t NCRYPT_WINDOW_HANDLE_PROPERTY[] = L"HWND Handle";
inline constexpr wchar_t NCRYPT_LENGTH_PROPERTY[] = L"Length";
inline constexpr wchar_t NCRYPT_LENGTHS_PROPERTY[] = L"Lengths";
inline constexpr wchar_t NCRYPT_BLOCK_LENGTH_PROPERTY[] = L"Block Length";
inline constexpr wchar_t NCRYPT_UI_POLICY_PROPERTY[] = L"UI Policy";
inline constexpr wchar_t NCRYPT_USE_CONTEXT_PROPERTY[] = L"Use Context";
inline constexpr wchar_t NCRYPT_KEY_TYPE_PROPERTY[] = L"Key Type";
inline constexpr wchar_t NCRYPT_PIN_PROPERTY[] = L"SmartCardPin";
inline constexpr wchar_t NCRYPT_CERTIFICATE_PROPERTY[] = L"SmartCardKeyCertificate";
inline constexpr wchar_t NCRYPT_RSA_ALGORITHM[] = L"RSA";

struct NCRYPT_SUPPORTED_LENGTHS {
    DWORD dwMinLength;
    DWORD dwMaxLength;
    DWORD dwIncrement;
    DWORD dwDefaultLength;
};

inline constexpr DWORD NCRYPT_SILENT_FLAG = 0x40;
inline constexpr DWORD NCRYPT_OVERWRITE_KEY_FLAG = 0x80;
inline constexpr DWORD NCRYPT_ALLOW_DECRYPT_FLAG = 0x1;
inline constexpr DWORD NCRYPT_ALLOW_SIGNING_FLAG = 0x2;
inline constexpr DWORD NCRYPT_ALLOW_KEY_AGREEMENT_FLAG = 0x4;
inline constexpr DWORD NCRYPT_IMPL_HARDWARE_FLAG = 0x1;

inline constexpr DWORD NCRYPT_CIPHER_OPERATION = 0x01;
inline constexpr DWORD NCRYPT_HASH_OPERATION = 0x02;
inline constexpr DWORD NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION = 0x04;
inline constexpr DWORD NCRYPT_SECRET_AGREEMENT_OPERATION = 0x08;
inline constexpr DWORD NCRYPT_SIGNATURE_OPERATION = 0x10;
inline constexpr DWORD NCRYPT_RNG_OPERATION = 0x20;

inline constexpr BCRYPT_INTERFACE_VERSION NCRYPT_KEY_STORAGE_INTERFACE_VERSION_2{2, 0};
