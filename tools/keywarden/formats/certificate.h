// Certificates in the user's "My" store, as the provider publishes them: the way from a key's name
// to its certificate.

#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <memory>
#include <string>
#include <vector>

namespace NV::tool {

struct CertificateFreer {
    void operator()(const CERT_CONTEXT* context) const { CertFreeCertificateContext(context); }
};
using Certificate = std::unique_ptr<const CERT_CONTEXT, CertificateFreer>;

// A certificate of the store with the provider and the container that its key information names;
// both are empty when it has none.
struct StoredCertificate {
    Certificate certificate;
    std::wstring provider;
    std::wstring container;
};

// All of "My", in the store's order. Throws Failure when it cannot be opened.
std::vector<StoredCertificate> certificatesInMy();

// The certificate published for a key of this provider; null when there is none.
Certificate publishedCertificate(const std::wstring& keyName);

// "Norvanta test RSA", the common name, or what stands for it; UTF-8.
std::string subjectOf(const CERT_CONTEXT& certificate);
// "2027-03-01", UTC.
std::string expiryOf(const CERT_CONTEXT& certificate);
bool isExpired(const CERT_CONTEXT& certificate);

}  // namespace NV::tool
