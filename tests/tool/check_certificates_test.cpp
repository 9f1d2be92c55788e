// keywarden check on certificates that are wrong in one way each.

#include <gtest/gtest.h>

#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "check_fixture.h"
#include "modern_mode.h"
#include "published.h"

namespace NV::test {

namespace {

using tool::Outcome;

// The certificate with another validity: the years of its begin and its end, two digits each. Its
// signature is then wrong, but nothing here verifies it.
Bytes certificateOf(std::string_view begin, std::string_view end, const std::string& name = "p256")
{
    Bytes der = certificateDer(name);
    const Bytes utcTime{0x17, 0x0D};
    const auto notBefore = std::search(der.begin(), der.end(), utcTime.begin(), utcTime.end());
    if (notBefore == der.end())
        throw std::runtime_error("no validity in the certificate");
    const auto notAfter = std::search(notBefore + 1, der.end(), utcTime.begin(), utcTime.end());
    if (notAfter == der.end())
        throw std::runtime_error("no validity in the certificate");
    std::ranges::copy(begin, notBefore + 2);
    std::ranges::copy(end, notAfter + 2);
    return der;
}

class CheckCertificates : public CheckOfScriptedToken {
protected:
    // What a check names. Other tests leave entries of their own.
    std::vector<std::string> staleEntries()
    {
        findings = {};
        check();
        return stepOf(findings, "stale-entries").details;
    }
};

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
    token.addCertificate(ecId, certificateDer("enduser"));
    check();
    expectStep("public-keys", Outcome::ok, "the provider uses the keys in the certificates");
    EXPECT_EQ(detailOf("public-keys"), "0256");
}

TEST_F(CheckCertificates, ExpiredCertificate)
{
    token.addCertificate(ecId, certificateOf("190101", "200229"));
    token.addEcKeyPair(ecId, 32);
    check();
    expectStep("certificates", Outcome::warning, "1 of 1 certificates have expired",
               "Renew the certificates");
    EXPECT_EQ(detailOf("certificates"), "0256: KeyWarden p256, EC 256, expired 2020-02-29");
}

TEST_F(CheckCertificates, CertificateThatIsNotValidYet)
{
    token.addCertificate(ecId, certificateOf("480101", "490101"));
    token.addEcKeyPair(ecId, 32);
    check();
    expectStep("certificates", Outcome::warning, "1 of 1 certificates are not valid yet",
               "the date of this computer");
    EXPECT_EQ(detailOf("certificates"),
              "0256: KeyWarden p256, EC 256, not valid before 2048-01-01");
}

// The step names the worst one, its details the others.
TEST_F(CheckCertificates, SeveralProblems)
{
    token.addCertificate(rsaId, certificateDer("ed25519"));
    token.addCertificate(ecId, certificateOf("190101", "200229"));
    check();
    expectStep("certificates", Outcome::warning, "1 of 2 certificates are neither RSA nor EC", "");
    EXPECT_TRUE(detailOf("certificates", 2).starts_with("1 of 2 certificates have expired. "))
        << detailOf("certificates", 2);
}

// A certificate that was renewed with a new key.
TEST_F(CheckCertificates, AnotherRsaKeyThanInTheCertificate)
{
    token.addCertificate(rsaId, certificateDer("rsa2048"));
    token.addRsaKeyPair(rsaId, 2048);
    check();
    expectStep("public-keys", Outcome::failed,
               "1 certificates do not belong to the public key object with their CKA_ID",
               "Write the certificate that was issued for the key");
    EXPECT_EQ(detailOf("public-keys"), "01AB: another key than in the certificate");
}

void addPoint(ScriptedToken& token, const Bytes& point)
{
    token.addObject({numberAttribute(CKA_CLASS, CKO_PUBLIC_KEY),
                     numberAttribute(CKA_KEY_TYPE, CKK_EC),
                     {CKA_ID, ecId},
                     {CKA_EC_POINT, point}});
}

TEST_F(CheckCertificates, AnotherEcKeyThanInTheCertificate)
{
    token.addCertificate(ecId, certificateDer("p256"));
    Bytes point = certificateKey("p256");
    point.back() ^= 1;
    point.insert(point.begin(), {0x04, 0x41});
    addPoint(token, point);
    check();
    expectStep("public-keys", Outcome::failed, "1 certificates do not belong to", "");
}

// With and without the OCTET STRING around it.
TEST_F(CheckCertificates, TheEcKeyOfTheCertificate)
{
    for (const bool wrapped : {true, false}) {
        token.clearObjects();
        token.addCertificate(ecId, certificateDer("p256"));
        Bytes point = certificateKey("p256");
        if (wrapped)
            point.insert(point.begin(), {0x04, 0x41});
        addPoint(token, point);
        check();
        expectStep("public-keys", Outcome::ok, "each certificate has a public key object");
        findings = {};
    }
}

// A key that cannot be read is not another one.
TEST_F(CheckCertificates, KeyWithoutItsNumbers)
{
    token.addCertificate(ecId, certificateDer("p256"));
    token.addEcKeyPair(ecId, 32);
    check();
    expectStep("public-keys", Outcome::ok, "each certificate has a public key object");
}

TEST_F(CheckCertificates, CertificateOfAnAuthority)
{
    addRsa();
    token.addCertificate(ecId, certificateDer("p256"));
    check();
    expectStep("authorities", Outcome::warning,
               "1 certificates among the keys are those of authorities", "set mode=modern");
    EXPECT_EQ(detailOf("authorities"), "0256: KeyWarden p256");
}

TEST_F(CheckCertificates, LeftOutInModern)
{
    const ModernMode modern;
    addRsa();
    token.addCertificate(ecId, certificateDer("p256"));
    token.addCertificate(std::nullopt, certificateDer("enduser"));
    check();
    expectStep("certificates", Outcome::ok, "3 on the token");
    expectStep("authorities", Outcome::warning,
               "2 certificates are no keys, and the provider leaves them out", "needs a CKA_ID");
    EXPECT_EQ(detailOf("authorities", 0), "0256: KeyWarden p256, an authority");
    EXPECT_EQ(detailOf("authorities", 1), "(no CKA_ID): KeyWarden enduser, no CKA_ID");
    // Nothing is said of what is no key.
    EXPECT_EQ(stepOf(findings, "published").details, std::vector<std::string>{"01AB"});
}

TEST_F(CheckCertificates, NoKeyInModern)
{
    const ModernMode modern;
    token.addCertificate(ecId, certificateDer("p256"));
    check();
    expectStep("certificates", Outcome::failed, "none of the token's certificates is that of a key",
               "Write a certificate");
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

// The certificate of another card, or of an earlier key, under the same name.
TEST_F(CheckCertificates, EntryThatIsNotOnTheToken)
{
    addRsa();
    const std::vector<std::string> before = staleEntries();
    const Bytes der = certificateWithSerial("p256", 4713);
    const Published stale(der, L"Norvanta Software KeyStore Provider");
    const Published other(certificateWithSerial("p384", 4714), L"Odd Provider");
    const std::vector<std::string> now = staleEntries();
    EXPECT_EQ(now.size(), before.size() + 1);
    expectStep("stale-entries", Outcome::warning,
               "certificates in \"My\" name this provider, but are not on the token",
               "certificate manager");
    const auto added = std::ranges::find_if(now, [&](const std::string& line) {
        return std::ranges::find(before, line) == before.end();
    });
    ASSERT_NE(added, now.end());
    EXPECT_TRUE(added->starts_with("01AB: KeyWarden p256, valid to ")) << *added;
}

TEST_F(CheckCertificates, PublishedForThisProvider)
{
    const Bytes der = certificateWithSerial("rsa2048", 4712);
    token.addCertificate(rsaId, der);
    token.addRsaKeyPair(rsaId, 2048);
    const std::vector<std::string> before = staleEntries();
    const Published own(der, L"Norvanta Software KeyStore Provider");
    EXPECT_EQ(staleEntries(), before);
    expectStep("published", Outcome::ok, "all certificates are in \"My\" with this provider");
}

}  // namespace

}  // namespace NV::test
