// keywarden check on certificates that are wrong in one way each.

#include <gtest/gtest.h>

#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "check_fixture.h"
#include "modern_mode.h"

namespace NV::test {

namespace {

using tool::Outcome;

// The certificate with the end of its validity in the past. Its signature is then wrong, but nothing here
// verifies it.
Bytes expiredCertificate()
{
    Bytes der = certificateDer("p256");
    const Bytes utcTime{0x17, 0x0D};
    const auto notBefore = std::search(der.begin(), der.end(), utcTime.begin(), utcTime.end());
    if (notBefore == der.end())
        throw std::runtime_error("no validity in the certificate");
    const auto notAfter = std::search(notBefore + 1, der.end(), utcTime.begin(), utcTime.end());
    if (notAfter == der.end())
        throw std::runtime_error("no validity in the certificate");
    std::ranges::copy(std::string_view("200229"), notAfter + 2);
    return der;
}

class CheckCertificates : public CheckOfScriptedToken {};

TEST_F(CheckCertificates, NoSession)
{
    token.fail("C_OpenSession", CKR_SESSION_COUNT);
    check();
    expectStep("certificates", Outcome::failed,
               "the token does not open a session: 000000b1(CKR_SESSION_COUNT)", "Another program");
}

TEST_F(CheckCertificates, NoCertificates)
{
    token.addRsaKeyPair(rsaId, 2048);
    check();
    expectStep("certificates", Outcome::failed, "the token has no visible certificate",
               "Write a certificate to the token");
}

TEST_F(CheckCertificates, CertificateWithoutId)
{
    addRsa();
    token.addCertificate(std::nullopt, certificateDer("p256"));
    check();
    expectStep("certificates", Outcome::failed, "1 of 2 certificates have no CKA_ID",
               "Give certificate and keys the same CKA_ID");
    EXPECT_TRUE(detailOf("certificates", 1).starts_with("(no CKA_ID): KeyWarden p256, EC 256"));
}

TEST_F(CheckCertificates, NoPublicKey)
{
    addRsa();
    token.addCertificate(ecId, certificateDer("p256"));
    check();
    expectStep("public-keys", Outcome::warning, "1 certificates have no public key object",
               "Verification and encryption on the token fail");
    EXPECT_EQ(detailOf("public-keys"), "0256");
    EXPECT_TRUE(contains(detailOf("public-keys", 1), "only after a login"));
}

TEST_F(CheckCertificates, NoPublicKeyIsNoProblemInModern)
{
    const ModernMode modern;
    token.addCertificate(ecId, certificateDer("p256"));
    check();
    expectStep("public-keys", Outcome::ok, "the provider uses the keys in the certificates");
    EXPECT_EQ(detailOf("public-keys"), "0256");
}

TEST_F(CheckCertificates, ExpiredCertificate)
{
    token.addCertificate(ecId, expiredCertificate());
    token.addEcKeyPair(ecId, 32);
    check();
    expectStep("certificates", Outcome::warning, "1 of 1 certificates have expired",
               "Renew the certificates");
    EXPECT_EQ(detailOf("certificates"), "0256: KeyWarden p256, EC 256, expired 2020-02-29");
}

TEST_F(CheckCertificates, TwoCertificatesOfOneId)
{
    addRsa();
    token.addCertificate(rsaId, certificateDer("p384"));
    check();
    expectStep("certificates", Outcome::warning, "1 of 2 certificates have a duplicate CKA_ID",
               "uses the first certificate");
}

TEST_F(CheckCertificates, KeyOfAnotherAlgorithm)
{
    token.addCertificate(ecId, certificateDer("ed25519"));
    check();
    expectStep("certificates", Outcome::warning, "1 of 1 certificates are neither RSA nor EC",
               "cannot be used");
}

TEST_F(CheckCertificates, InvalidCertificate)
{
    token.addCertificate(ecId, {0x30, 0x03, 0x02, 0x01});
    check();
    expectStep("certificates", Outcome::warning, "1 of 1 certificates are neither RSA nor EC",
               "cannot be used");
    EXPECT_EQ(detailOf("certificates"), "0256: not a certificate that the system can read");
}

TEST_F(CheckCertificates, NotPublishedYet)
{
    addRsa();
    check();
    expectStep("published", Outcome::warning, "1 certificates are not in \"My\" yet",
               "keywarden keys");
    EXPECT_EQ(detailOf("published"), "01AB");
}

// Puts a certificate into the user's "My" store; the destructor removes it.
class Published {
public:
    Published(const Bytes& der, std::wstring provider)
        : context_(CertCreateCertificateContext(X509_ASN_ENCODING, der.data(),
                                                static_cast<DWORD>(der.size())))
    {
        std::wstring container = L"01AB";
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
    // Changes become visible when the store is closed.
    template <typename Work>
    static void inStore(const Work& work)
    {
        HCERTSTORE store = CertOpenSystemStoreW(0, L"MY");
        ASSERT_NE(store, nullptr);
        work(store);
        CertCloseStore(store, 0);
    }

    const CERT_CONTEXT* context_;
};

TEST_F(CheckCertificates, PublishedForAnotherProvider)
{
    const Bytes der = certificateWithSerial("rsa2048", 4711);
    token.addCertificate(rsaId, der);
    token.addRsaKeyPair(rsaId, 2048);
    const Published other(der, L"Odd Provider");
    check();
    expectStep("published", Outcome::warning, "1 certificates in \"My\" name another provider",
               "Two products publish the certificates of the same token");
    EXPECT_EQ(detailOf("published"), "01AB: \"Odd Provider\"");
}

TEST_F(CheckCertificates, PublishedForThisProvider)
{
    const Bytes der = certificateWithSerial("rsa2048", 4712);
    token.addCertificate(rsaId, der);
    token.addRsaKeyPair(rsaId, 2048);
    const Published own(der, L"Norvanta Software KeyStore Provider");
    check();
    expectStep("published", Outcome::ok, "all certificates are in \"My\" with this provider");
}

}  // namespace

}  // namespace NV::test
