// keywarden check on tokens that are wrong in one way each: the steps themselves, with the scripted
// token behind them.

#include <gtest/gtest.h>

#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>

#include "logger/logger.h"
#include "module_fixture.h"
#include "scripted_token.h"
#include "tool_program.h"

namespace NV::test {

namespace {

using tool::Findings;
using tool::Outcome;
using tool::Step;

const Bytes rsaId{0x01, 0xAB};
const Bytes ecId{0x02, 0x56};

bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

// The certificate with the end of its validity in the past; the signature no longer fits, which
// nothing here looks at.
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

class CheckToken : public testing::Test {
protected:
    CheckToken() : types_(loggerSettings().types) { loggerSettings().types = 0; }

    // No step logs in, sets a PIN, or leaves the library in use.
    void TearDown() override
    {
        findings = {};  // gives the library back, and would say so in the log
        for (const char* name : {"C_Login", "C_InitPIN", "C_SetPIN", "C_InitToken"})
            EXPECT_TRUE(token.calls(name).empty()) << name;
        EXPECT_FALSE(token.initialised());
        EXPECT_EQ(token.openSessions(), 0U);
        loggerSettings().types = types_;
    }

    void check()
    {
        findings.library = ScriptedToken::path();
        checkLibrary(findings);
        checkTokens(findings);
        checkCertificates(findings);
    }

    void expectStep(const char* name, Outcome outcome, const std::string& text,
                    const std::string& advice = {}) const
    {
        const Step step = stepOf(findings, name);
        EXPECT_EQ(step.outcome, outcome) << name;
        EXPECT_TRUE(contains(step.text, text)) << step.text;
        EXPECT_TRUE(contains(step.advice, advice)) << step.advice;
        // Whoever is told of a problem is told what to do.
        EXPECT_EQ(step.advice.empty(), outcome == Outcome::ok || outcome == Outcome::skipped);
    }

    std::string detailOf(const char* name, size_t index = 0) const
    {
        const Step step = stepOf(findings, name);
        return index < step.details.size() ? step.details[index] : std::string();
    }

    void addRsa()
    {
        token.addCertificate(rsaId, certificateWithSerial("rsa2048", ++serial_));
        token.addRsaKeyPair(rsaId, 2048);
    }

    void setTokenFlags(CK_FLAGS flags) { token.addSlot(kSlot, kSlotFlags, flags); }

    ScriptedToken token;
    Findings findings;

private:
    uint32_t types_;
    uint32_t serial_ = 0;
};

TEST_F(CheckToken, FindsAllInOrder)
{
    addRsa();
    check();
    for (const char* name :
         {"library-file", "library-architecture", "library-dependencies", "library-loads",
          "function-list", "slots", "chosen-slot", "pin", "certificates", "public-keys"})
        expectStep(name, Outcome::ok, "");
    EXPECT_EQ(stepOf(findings, "library-loads").text, "PKCS#11 2.40");
    EXPECT_EQ(stepOf(findings, "function-list").text, "agrees with the library's exports");
    EXPECT_EQ(detailOf("slots"),
              "slot 52: \"Odd Label 52\", serial SN-7391-52, initialised, login required, PIN set");
    EXPECT_EQ(stepOf(findings, "chosen-slot").text, "slot 52, the first with an initialised token");
    EXPECT_EQ(stepOf(findings, "pin").text, "5 to 15 characters, not locked");
    EXPECT_TRUE(
        detailOf("certificates").starts_with("01AB: KeyWarden rsa2048, RSA 2048, valid to "))
        << detailOf("certificates");
    EXPECT_TRUE(contains(detailOf("public-keys"), "only after a login"));
    EXPECT_FALSE(token.calls("C_FindObjectsInit").empty());
}

TEST_F(CheckToken, ListRepaired)
{
    token.setListMode(ListMode::differentInitialize);
    check();
    expectStep("function-list", Outcome::ok, "the provider repairs it");
}

TEST_F(CheckToken, ListRefused)
{
    token.fail("C_GetFunctionList", CKR_HOST_MEMORY);
    check();
    expectStep("library-loads", Outcome::failed, "its C_GetFunctionList gives no list", "log");
    expectStep("slots", Outcome::skipped, "");
}

TEST_F(CheckToken, InitialiseFails)
{
    token.fail("C_Initialize", CKR_DEVICE_ERROR);
    check();
    expectStep("slots", Outcome::failed, "C_Initialize: 00000030(CKR_DEVICE_ERROR)",
               "is its service running?");
    expectStep("certificates", Outcome::skipped, "");
}

TEST_F(CheckToken, InitialiseThrows)
{
    token.throwFrom("C_Initialize");
    check();
    expectStep("slots", Outcome::failed, "C_Initialize: 00000006(CKR_FUNCTION_FAILED)", "log");
}

TEST_F(CheckToken, SlotListFails)
{
    token.fail("C_GetSlotList", CKR_GENERAL_ERROR);
    check();
    expectStep("slots", Outcome::failed, "C_GetSlotList: 00000005(CKR_GENERAL_ERROR)", "log");
}

TEST_F(CheckToken, NoSlotWithAToken)
{
    token.clearSlots();
    token.addSlot(kSlot, kEmptySlotFlags, 0);
    check();
    expectStep("slots", Outcome::failed, "no slot holds a token", "Insert the card");
}

TEST_F(CheckToken, TokenNotInitialised)
{
    setTokenFlags(CKF_RNG);
    check();
    expectStep("chosen-slot", Outcome::failed, "no token is initialised", "the vendor's tool");
    expectStep("certificates", Outcome::skipped, "");
}

TEST_F(CheckToken, SecondSlotIsChosen)
{
    setTokenFlags(CKF_RNG);
    token.addSlot(kOtherSlot, kSlotFlags, kTokenFlags);
    check();
    expectStep("chosen-slot", Outcome::ok, "slot 77, the first with an initialised token");
    EXPECT_EQ(stepOf(findings, "slots").details.size(), 2U);
}

TEST_F(CheckToken, PinLocked)
{
    setTokenFlags(kTokenFlags | CKF_USER_PIN_LOCKED | CKF_USER_PIN_FINAL_TRY);
    check();
    expectStep("pin", Outcome::failed, "the PIN is locked", "security officer");
}

TEST_F(CheckToken, PinFinalTry)
{
    setTokenFlags(kTokenFlags | CKF_USER_PIN_FINAL_TRY | CKF_USER_PIN_COUNT_LOW);
    check();
    expectStep("pin", Outcome::warning, "one wrong PIN more locks it", "Have the PIN at hand");
}

TEST_F(CheckToken, PinCountLow)
{
    setTokenFlags(kTokenFlags | CKF_USER_PIN_COUNT_LOW);
    check();
    expectStep("pin", Outcome::warning, "a wrong PIN was entered", "sets the count back");
}

TEST_F(CheckToken, PinToBeChanged)
{
    setTokenFlags(kTokenFlags | CKF_USER_PIN_TO_BE_CHANGED);
    check();
    expectStep("pin", Outcome::warning, "wants the PIN to be changed", "Change it");
}

TEST_F(CheckToken, NoPinSet)
{
    setTokenFlags(CKF_LOGIN_REQUIRED | CKF_TOKEN_INITIALIZED);
    check();
    expectStep("pin", Outcome::failed, "no PIN has been set", "Set one");
}

TEST_F(CheckToken, NoSession)
{
    token.fail("C_OpenSession", CKR_SESSION_COUNT);
    check();
    expectStep("certificates", Outcome::failed,
               "the token opens no session: 000000b1(CKR_SESSION_COUNT)", "Another program");
}

TEST_F(CheckToken, NoCertificates)
{
    token.addRsaKeyPair(rsaId, 2048);
    check();
    expectStep("certificates", Outcome::failed, "the token shows no certificate",
               "write one to the token");
}

TEST_F(CheckToken, CertificateWithoutId)
{
    addRsa();
    token.addCertificate(std::nullopt, certificateDer("p256"));
    check();
    expectStep("certificates", Outcome::failed, "1 of 2 have no CKA_ID",
               "Give certificate and keys the same CKA_ID");
    EXPECT_TRUE(detailOf("certificates", 1).starts_with("(no CKA_ID): KeyWarden p256, EC 256"));
}

TEST_F(CheckToken, NoPublicKey)
{
    addRsa();
    token.addCertificate(ecId, certificateDer("p256"));
    check();
    expectStep("public-keys", Outcome::warning, "1 certificates have no public key object",
               "Verifying and encrypting on the token fail");
    EXPECT_EQ(detailOf("public-keys"), "0256");
    EXPECT_TRUE(contains(detailOf("public-keys", 1), "only after a login"));
}

TEST_F(CheckToken, ExpiredCertificate)
{
    token.addCertificate(ecId, expiredCertificate());
    token.addEcKeyPair(ecId, 32);
    check();
    expectStep("certificates", Outcome::warning, "1 of 1 are expired", "renew the certificate");
    EXPECT_EQ(detailOf("certificates"), "0256: KeyWarden p256, EC 256, expired 2020-02-29");
}

TEST_F(CheckToken, TwoCertificatesOfOneId)
{
    addRsa();
    token.addCertificate(rsaId, certificateDer("p384"));
    check();
    expectStep("certificates", Outcome::warning, "1 of 2 repeat a CKA_ID",
               "serves the first certificate");
}

TEST_F(CheckToken, KeyOfAnotherAlgorithm)
{
    token.addCertificate(ecId, certificateDer("ed25519"));
    check();
    expectStep("certificates", Outcome::warning, "1 of 1 are neither RSA nor EC", "cannot be used");
}

TEST_F(CheckToken, CertificateThatIsNone)
{
    token.addCertificate(ecId, {0x30, 0x03, 0x02, 0x01});
    check();
    expectStep("certificates", Outcome::warning, "1 of 1 are neither RSA nor EC", "cannot be used");
    EXPECT_EQ(detailOf("certificates"), "0256: not a certificate that the system can read");
}

TEST_F(CheckToken, NotPublishedYet)
{
    addRsa();
    check();
    expectStep("published", Outcome::warning, "1 certificates are not in \"My\" yet",
               "keywarden keys");
    EXPECT_EQ(detailOf("published"), "01AB");
}

// A certificate of the user's "My" store, for as long as it lives.
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
    // Others see what was done when the store is closed.
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

TEST_F(CheckToken, PublishedForAnotherProvider)
{
    const Bytes der = certificateWithSerial("rsa2048", 4711);
    token.addCertificate(rsaId, der);
    token.addRsaKeyPair(rsaId, 2048);
    const Published other(der, L"Odd Provider");
    check();
    expectStep("published", Outcome::warning, "1 certificates in \"My\" name another provider",
               "Two products publish the same token");
    EXPECT_EQ(detailOf("published"), "01AB: \"Odd Provider\"");
}

TEST_F(CheckToken, PublishedForThisProvider)
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
