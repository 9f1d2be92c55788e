// Reading certificates and the system's store.

#include "formats/certificate.h"

#include <cstdio>
#include <utility>

#include "failure.h"
#include "text.h"

namespace NV::tool {

namespace {

struct StoreCloser {
    void operator()(void* store) const { CertCloseStore(store, 0); }
};

using Store = std::unique_ptr<void, StoreCloser>;

// Throws Failure.
Store openMy()
{
    Store store(CertOpenSystemStoreW(0, L"MY"));
    if (store == nullptr)
        throw Failure("the certificate store \"My\" cannot be opened: " +
                      errorText(GetLastError()));
    return store;
}

void readKeyInformation(StoredCertificate& entry)
{
    DWORD size = 0;
    const CERT_CONTEXT* context = entry.certificate.get();
    if (!CertGetCertificateContextProperty(context, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &size))
        return;
    // The block contains the structure, followed by the texts that it points to.
    std::vector<CRYPT_KEY_PROV_INFO> block(size / sizeof(CRYPT_KEY_PROV_INFO) + 1);
    if (!CertGetCertificateContextProperty(context, CERT_KEY_PROV_INFO_PROP_ID, block.data(),
                                           &size))
        return;
    const CRYPT_KEY_PROV_INFO& information = block.front();
    if (information.pwszProvName != nullptr)
        entry.provider = information.pwszProvName;
    if (information.pwszContainerName != nullptr)
        entry.container = information.pwszContainerName;
}

// The date in UTC.
std::string dateOf(const FILETIME& when)
{
    SYSTEMTIME time{};
    FileTimeToSystemTime(&when, &time);
    char text[16];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d", time.wYear, time.wMonth, time.wDay);
    return text;
}

}  // namespace

Certificate certificateFrom(const Bytes& der)
{
    return Certificate(CertCreateCertificateContext(X509_ASN_ENCODING, der.data(),
                                                    static_cast<DWORD>(der.size())));
}

std::vector<StoredCertificate> certificatesInMy()
{
    const Store store = openMy();
    std::vector<StoredCertificate> found;
    const CERT_CONTEXT* context = nullptr;
    while ((context = CertEnumCertificatesInStore(store.get(), context)) != nullptr) {
        StoredCertificate entry{Certificate(CertDuplicateCertificateContext(context)), {}, {}};
        readKeyInformation(entry);
        found.push_back(std::move(entry));
    }
    return found;
}

void removeFromMy(const CERT_CONTEXT& certificate)
{
    const Store store = openMy();
    const CERT_CONTEXT* entry = CertFindCertificateInStore(
        store.get(), X509_ASN_ENCODING, 0, CERT_FIND_EXISTING, &certificate, nullptr);
    // The function frees the entry, also if it fails.
    if (entry != nullptr && !CertDeleteCertificateFromStore(entry))
        throw Failure("a certificate cannot be removed from \"My\": " + errorText(GetLastError()));
    // Windows has removed it by now and may refuse this; Wine would forget it when the store closes.
    CertControlStore(store.get(), 0, CERT_STORE_CTRL_COMMIT, nullptr);
}

std::string subjectOf(const CERT_CONTEXT& certificate)
{
    const DWORD length =
        CertGetNameStringW(&certificate, CERT_NAME_SIMPLE_DISPLAY_TYPE, 0, nullptr, nullptr, 0);
    std::wstring name(length, L'\0');
    CertGetNameStringW(&certificate, CERT_NAME_SIMPLE_DISPLAY_TYPE, 0, nullptr, name.data(),
                       length);
    return toUtf8(std::wstring_view(name).substr(0, name.find(L'\0')));
}

std::string expiryOf(const CERT_CONTEXT& certificate)
{
    return dateOf(certificate.pCertInfo->NotAfter);
}

bool isExpired(const CERT_CONTEXT& certificate)
{
    return CertVerifyTimeValidity(nullptr, certificate.pCertInfo) > 0;
}

bool isNotValidYet(const CERT_CONTEXT& certificate)
{
    return CertVerifyTimeValidity(nullptr, certificate.pCertInfo) < 0;
}

std::string validityOf(const CERT_CONTEXT& certificate)
{
    if (isNotValidYet(certificate))
        return "not valid before " + dateOf(certificate.pCertInfo->NotBefore);
    return (isExpired(certificate) ? "expired " : "valid to ") + expiryOf(certificate);
}

std::string thumbprintOf(const CERT_CONTEXT& certificate)
{
    Bytes hash(20);
    auto size = static_cast<DWORD>(hash.size());
    if (!CertGetCertificateContextProperty(&certificate, CERT_SHA1_HASH_PROP_ID, hash.data(),
                                           &size))
        return {};
    return hexEncode(hash);
}

}  // namespace NV::tool
