// A certificate in the user's "My" store for the time of a test.

#pragma once

#include <gtest/gtest.h>

#include <windows.h>

#include <wincrypt.h>

#include <string>

#include "base/encoding.h"

namespace NV::test {

// Puts a certificate into the user's "My" store; the destructor removes it.
class Published {
public:
    Published(const Bytes& der, std::wstring provider, std::wstring container = L"01AB")
        : context_(CertCreateCertificateContext(X509_ASN_ENCODING, der.data(),
                                                static_cast<DWORD>(der.size())))
    {
        CRYPT_KEY_PROV_INFO information{};
        information.pwszContainerName = container.data();
        information.pwszProvName = provider.data();
        EXPECT_TRUE(CertSetCertificateContextProperty(context_, CERT_KEY_PROV_INFO_PROP_ID, 0,
                                                      &information));
        inStore([this](HCERTSTORE store) {
            EXPECT_TRUE(CertAddCertificateContextToStore(store, context_,
                                                         CERT_STORE_ADD_REPLACE_EXISTING, nullptr));
        });
    }
    ~Published()
    {
        inStore([this](HCERTSTORE store) {
            const CERT_CONTEXT* found = CertFindCertificateInStore(
                store, X509_ASN_ENCODING, 0, CERT_FIND_EXISTING, context_, nullptr);
            if (found != nullptr)
                CertDeleteCertificateFromStore(found);
        });
        CertFreeCertificateContext(context_);
    }
    Published(const Published&) = delete;
    Published& operator=(const Published&) = delete;

private:
    // Changes become visible when the store is closed; Wine loses what was deleted unless told.
    template <typename Work>
    static void inStore(const Work& work)
    {
        HCERTSTORE store = CertOpenSystemStoreW(0, L"MY");
        ASSERT_NE(store, nullptr);
        work(store);
        CertControlStore(store, 0, CERT_STORE_CTRL_COMMIT, nullptr);
        CertCloseStore(store, 0);
    }

    const CERT_CONTEXT* context_;
};

}  // namespace NV::test
