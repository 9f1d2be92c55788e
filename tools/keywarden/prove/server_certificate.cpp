// Making the key and its certificate, and removing the key.

#include "prove/server_certificate.h"

#include <array>
#include <string>

#include "failure.h"
#include "prove/proving.h"
#include "system/explanation.h"

namespace NV::tool {

namespace {

constexpr DWORD serverKeyBits = 2048;

std::wstring nameOfThisProcess()
{
    return L"KeyWarden prove " + std::to_wstring(GetCurrentProcessId()) + L" " +
           std::to_wstring(GetTickCount());
}

}  // namespace

ServerCertificate::ServerCertificate() : name_(nameOfThisProcess())
{
    try {
        if (!makeCngKey())
            makeCryptoApiKey();
        makeCertificate();
    } catch (...) {
        removeKey();
        throw;
    }
}

ServerCertificate::~ServerCertificate()
{
    atEnd([this] { remove(); });
}

void ServerCertificate::remove()
{
    const SECURITY_STATUS status = removeKey();
    if (status != ERROR_SUCCESS)
        throw Failure("the server's key, which was made for this step, cannot be removed: " +
                          statusText(status),
                      {}, ExitCode::failed, status);
}

// False if the system has no software provider.
bool ServerCertificate::makeCngKey()
{
    NCRYPT_PROV_HANDLE provider = 0;
    if (NCryptOpenStorageProvider(&provider, MS_KEY_STORAGE_PROVIDER, 0) != ERROR_SUCCESS)
        return false;
    SECURITY_STATUS status =
        NCryptCreatePersistedKey(provider, &key_, BCRYPT_RSA_ALGORITHM, name_.c_str(), 0, 0);
    NCryptFreeObject(provider);
    requireOfSystem(status, "NCryptCreatePersistedKey of the system's software provider");
    DWORD bits = serverKeyBits;
    status = NCryptSetProperty(key_, NCRYPT_LENGTH_PROPERTY, reinterpret_cast<PBYTE>(&bits),
                               sizeof bits, 0);
    if (status == ERROR_SUCCESS)
        status = NCryptFinalizeKey(key_, NCRYPT_SILENT_FLAG);
    if (status != ERROR_SUCCESS) {
        // A key that is not finished is not stored.
        NCryptFreeObject(key_);
        key_ = 0;
    }
    requireOfSystem(status, "NCryptFinalizeKey of the system's software provider");
    return true;
}

void ServerCertificate::makeCryptoApiKey()
{
    HCRYPTPROV provider = 0;
    requireOfSystem(CryptAcquireContextW(&provider, name_.c_str(), nullptr, PROV_RSA_AES,
                                         CRYPT_NEWKEYSET | CRYPT_SILENT) != FALSE,
                    "CryptAcquireContext for the server's key");
    hasCryptoApiKey_ = true;
    HCRYPTKEY key = 0;
    const bool made = CryptGenKey(provider, AT_KEYEXCHANGE, serverKeyBits << 16, &key) != FALSE;
    const DWORD error = GetLastError();
    if (made)
        CryptDestroyKey(key);
    CryptReleaseContext(provider, 0);
    SetLastError(error);
    requireOfSystem(made, "CryptGenKey for the server's key");
}

void ServerCertificate::makeCertificate()
{
    std::array<BYTE, 64> name{};
    CERT_NAME_BLOB subject{static_cast<DWORD>(name.size()), name.data()};
    requireOfSystem(CertStrToNameW(X509_ASN_ENCODING, L"CN=localhost", CERT_X500_NAME_STR, nullptr,
                                   subject.pbData, &subject.cbData, nullptr) != FALSE,
                    "CertStrToName");
    std::wstring provider = MS_KEY_STORAGE_PROVIDER;
    CRYPT_KEY_PROV_INFO information{};
    information.pwszContainerName = name_.data();
    if (key_ != 0) {
        information.pwszProvName = provider.data();
    } else {
        information.dwProvType = PROV_RSA_AES;
        information.dwKeySpec = AT_KEYEXCHANGE;
    }
    char oid[] = szOID_RSA_SHA256RSA;
    CRYPT_ALGORITHM_IDENTIFIER algorithm{oid, {0, nullptr}};
    certificate_.reset(CertCreateSelfSignCertificate(key_, &subject, 0, &information, &algorithm,
                                                     nullptr, nullptr, nullptr));
    requireOfSystem(certificate_ != nullptr, "CertCreateSelfSignCertificate");
}

SECURITY_STATUS ServerCertificate::removeKey() noexcept
{
    certificate_.reset();
    SECURITY_STATUS status = ERROR_SUCCESS;
    if (key_ != 0) {
        // Frees the handle, too, if it succeeds.
        status = NCryptDeleteKey(key_, 0);
        if (status != ERROR_SUCCESS)
            NCryptFreeObject(key_);
    }
    if (hasCryptoApiKey_) {
        HCRYPTPROV none = 0;
        if (!CryptAcquireContextW(&none, name_.c_str(), nullptr, PROV_RSA_AES,
                                  CRYPT_DELETEKEYSET | CRYPT_SILENT))
            status = static_cast<SECURITY_STATUS>(GetLastError());
    }
    key_ = 0;
    hasCryptoApiKey_ = false;
    return status;
}

}  // namespace NV::tool
