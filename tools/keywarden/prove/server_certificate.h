// The certificate of a TLS server that exists for one step.

#pragma once

#include <windows.h>

#include <string>

#include "base/cng.h"
#include "formats/certificate.h"

namespace NV::tool {

// A self-signed certificate for "localhost" and its RSA key: one of the system's software provider, or of
// CryptoAPI if there is none. The key is stored under a name of this process, and the destructor removes
// it. The certificate is in no store.
class ServerCertificate {
public:
    // Throws NotPossible or Failure.
    ServerCertificate();
    ~ServerCertificate();
    ServerCertificate(const ServerCertificate&) = delete;
    ServerCertificate& operator=(const ServerCertificate&) = delete;

    const CERT_CONTEXT& context() const { return *certificate_; }

    // Removes the key. Throws Failure if the system refuses, because the key then stays.
    void remove();

private:
    bool makeCngKey();
    void makeCryptoApiKey();
    void makeCertificate();
    // The status of the removal, ERROR_SUCCESS if there is nothing to remove.
    SECURITY_STATUS removeKey() noexcept;

    std::wstring name_;
    NCRYPT_KEY_HANDLE key_ = 0;  // 0: CryptoAPI has the key
    bool hasCryptoApiKey_ = false;
    Certificate certificate_;
};

}  // namespace NV::tool
