// CryptAcquireCertificatePrivateKey as crypt32.dll has it on Windows: it opens the key that the
// certificate's provider information names, through ncrypt.dll. Wine's own does not.

#include "base/cng.h"

#include <wincrypt.h>

#include <vector>

namespace {

constexpr DWORD anyNcrypt = CRYPT_ACQUIRE_ALLOW_NCRYPT_KEY_FLAG |
                            CRYPT_ACQUIRE_PREFER_NCRYPT_KEY_FLAG |
                            CRYPT_ACQUIRE_ONLY_NCRYPT_KEY_FLAG;
constexpr DWORD caching = CRYPT_ACQUIRE_CACHE_FLAG | CRYPT_ACQUIRE_USE_PROV_INFO_FLAG;

// The provider information, which has its texts in the same block. Empty if there is none.
std::vector<BYTE> providerInformation(PCCERT_CONTEXT certificate)
{
    DWORD size = 0;
    if (!CertGetCertificateContextProperty(certificate, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &size))
        return {};
    std::vector<BYTE> block(size);
    if (!CertGetCertificateContextProperty(certificate, CERT_KEY_PROV_INFO_PROP_ID, block.data(),
                                           &size))
        return {};
    return block;
}

// The key keeps its provider open.
SECURITY_STATUS openKey(const CRYPT_KEY_PROV_INFO& info, DWORD flags, NCRYPT_KEY_HANDLE& key)
{
    NCRYPT_PROV_HANDLE provider = 0;
    SECURITY_STATUS status = NCryptOpenStorageProvider(&provider, info.pwszProvName, 0);
    if (status != ERROR_SUCCESS)
        return status;
    status = NCryptOpenKey(provider, &key, info.pwszContainerName, info.dwKeySpec, flags);
    NCryptFreeObject(provider);
    return status;
}

SECURITY_STATUS acquire(PCCERT_CONTEXT certificate, DWORD flags, void* window,
                        NCRYPT_KEY_HANDLE& key)
{
    if ((flags & anyNcrypt) == 0)
        return NTE_BAD_PROV_TYPE;
    if ((flags & caching) != 0)
        return NTE_NOT_SUPPORTED;
    std::vector<BYTE> block = providerInformation(certificate);
    if (block.empty())
        return CRYPT_E_NO_KEY_PROPERTY;
    const auto& info = *reinterpret_cast<const CRYPT_KEY_PROV_INFO*>(block.data());
    const DWORD openFlags = (flags & CRYPT_ACQUIRE_SILENT_FLAG) != 0 ? NCRYPT_SILENT_FLAG : 0;
    const SECURITY_STATUS status = openKey(info, openFlags, key);
    if (status == ERROR_SUCCESS && (flags & CRYPT_ACQUIRE_WINDOW_HANDLE_FLAG) != 0)
        return NCryptSetProperty(key, NCRYPT_WINDOW_HANDLE_PROPERTY, static_cast<PBYTE>(window),
                                 sizeof(HWND), 0);
    return status;
}

}  // namespace

// acquire.def exports it under the name of crypt32.dll's function, which is declared as imported.
extern "C" WINBOOL WINAPI
routerAcquireCertificatePrivateKey(PCCERT_CONTEXT pCert, DWORD dwFlags, void* pvParametersOrHwnd,
                                   HCRYPTPROV_OR_NCRYPT_KEY_HANDLE* phCryptProvOrNCryptKey,
                                   DWORD* pdwKeySpec, WINBOOL* pfCallerFreeProvOrNCryptKey)
{
    NCRYPT_KEY_HANDLE key = 0;
    const SECURITY_STATUS status = pCert == nullptr || phCryptProvOrNCryptKey == nullptr
                                       ? E_INVALIDARG
                                       : acquire(pCert, dwFlags, pvParametersOrHwnd, key);
    if (status != ERROR_SUCCESS) {
        if (key != 0)
            NCryptFreeObject(key);
        SetLastError(static_cast<DWORD>(status));
        return FALSE;
    }
    *phCryptProvOrNCryptKey = key;
    if (pdwKeySpec != nullptr)
        *pdwKeySpec = CERT_NCRYPT_KEY_SPEC;
    if (pfCallerFreeProvOrNCryptKey != nullptr)
        *pfCallerFreeProvOrNCryptKey = TRUE;
    return TRUE;
}
