// Certificates in the user's "My" store, and how to find the certificate of a key by the key's name.

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

// A certificate of the store with the provider and the container in its key information. Both are
// empty if it has none.
struct StoredCertificate {
    Certificate certificate;
    std::wstring provider;
    std::wstring container;
};

// All of "My", in the store's order. Throws Failure when it cannot be opened.
std::vector<StoredCertificate> certificatesInMy();

// The certificate that is published for a key of this provider; null if there is none.
Certificate publishedCertificate(const std::wstring& keyName);

// "Norvanta test RSA": the common name, or what the system displays in its place; UTF-8.
std::string subjectOf(const CERT_CONTEXT& certificate);
// "2027-03-01"; the date in UTC.
std::string expiryOf(const CERT_CONTEXT& certificate);
bool isExpired(const CERT_CONTEXT& certificate);

}  // namespace NV::tool
