// Certificates, and those in the user's "My" store.

#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <memory>
#include <string>
#include <vector>

#include "base/encoding.h"

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

// A certificate from its DER; null if the system cannot read it.
Certificate certificateFrom(const Bytes& der);

// All of "My", in the store's order. Throws Failure when it cannot be opened.
std::vector<StoredCertificate> certificatesInMy();

// Removes this certificate from "My". One that is no longer there counts as removed. Throws Failure.
void removeFromMy(const CERT_CONTEXT& certificate);

// "Norvanta test RSA": the common name, or what the system displays in its place; UTF-8.
std::string subjectOf(const CERT_CONTEXT& certificate);
// "2027-03-01"; the date in UTC.
std::string expiryOf(const CERT_CONTEXT& certificate);
bool isExpired(const CERT_CONTEXT& certificate);
bool isNotValidYet(const CERT_CONTEXT& certificate);
// "valid to 2027-03-01", "expired 2020-02-29" or "not valid before 2031-01-01".
std::string validityOf(const CERT_CONTEXT& certificate);
// The SHA-1 hash of the certificate in upper-case hexadecimal, as the certificate manager shows it.
std::string thumbprintOf(const CERT_CONTEXT& certificate);

}  // namespace NV::tool
