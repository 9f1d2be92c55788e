// Certificate stores, in memory.

#include <windows.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <vector>

#include "certificates.h"
#include "last_error.h"

namespace NV::stand_in {

namespace {

struct Releaser {
    void operator()(Certificate* certificate) const { certificate->release(); }
};
using Reference = std::unique_ptr<Certificate, Releaser>;

Reference refer(Certificate& certificate)
{
    certificate.acquire();
    return Reference(&certificate);
}

class Store {
public:
    // The certificate of the store with the content of this one, which takes the place of an equal
    // one.
    Reference replace(const Certificate& source)
    {
        const auto& der = source.der();
        Reference copy(new Certificate(der.data(), static_cast<DWORD>(der.size())));
        copy->read();
        Reference result = refer(*copy);
        const std::lock_guard guard(lock_);
        const auto equal = std::ranges::find_if(
            certificates_, [&](const Reference& each) { return each->der() == der; });
        if (equal != certificates_.end())
            *equal = std::move(copy);
        else
            certificates_.push_back(std::move(copy));
        // cppcheck-suppress returnDanglingLifetime ; the certificate counts its references
        return result;
    }

    // The one behind `previous`; null behind the last one.
    Reference next(const Certificate* previous)
    {
        const std::lock_guard guard(lock_);
        auto place = certificates_.begin();
        if (previous != nullptr) {
            place = std::ranges::find(certificates_, previous, &Reference::get);
            if (place != certificates_.end())
                ++place;
        }
        return place != certificates_.end() ? refer(**place) : nullptr;
    }

private:
    std::mutex lock_;
    std::vector<Reference> certificates_;
};

Store& systemStore()
{
    static Store store;
    return store;
}

Store& storeOf(HCERTSTORE handle)
{
    return *static_cast<Store*>(handle);
}

HCERTSTORE openSystemStore(HCRYPTPROV_LEGACY, LPCWSTR)
{
    return &systemStore();
}

BOOL addCertificate(HCERTSTORE store, PCCERT_CONTEXT context, DWORD, PCCERT_CONTEXT* stored)
{
    Reference added = storeOf(store).replace(*certificateOf(context));
    if (stored != nullptr)
        *stored = added.release()->context();
    return TRUE;
}

BOOL setProperty(PCCERT_CONTEXT context, DWORD property, DWORD, const void* value)
{
    if (property != CERT_KEY_PROV_INFO_PROP_ID)
        return failed(ERROR_INVALID_PARAMETER);
    certificateOf(context)->setProviderInfo(*static_cast<const CRYPT_KEY_PROV_INFO*>(value));
    return TRUE;
}

}  // namespace

}  // namespace NV::stand_in

using namespace NV::stand_in;  // the definitions below are functions of Windows

decltype(importedCertOpenSystemStoreW) importedCertOpenSystemStoreW = &openSystemStore;
decltype(importedCertAddCertificateContextToStore) importedCertAddCertificateContextToStore =
    &addCertificate;
decltype(importedCertSetCertificateContextProperty) importedCertSetCertificateContextProperty =
    &setProperty;

HCERTSTORE CertOpenStore(LPCSTR, DWORD, HCRYPTPROV_LEGACY, DWORD, const void*)
{
    return new Store;
}

BOOL CertCloseStore(HCERTSTORE store, DWORD)
{
    if (store != &systemStore()) {
        const std::unique_ptr<Store> owned(&storeOf(store));
    }
    return TRUE;
}

PCCERT_CONTEXT CertEnumCertificatesInStore(HCERTSTORE store, PCCERT_CONTEXT previous)
{
    const Reference owned(previous != nullptr ? certificateOf(previous) : nullptr);
    Reference found = storeOf(store).next(owned.get());
    return found != nullptr ? found.release()->context() : nullptr;
}
