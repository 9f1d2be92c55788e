// What the PIN dialog is told about a key: its names, its token, the token's warning.

#include "nvvtoken/nvvtoken_pin.h"

#include <gtest/gtest.h>

#include <string>

#include "certstore/certstore.h"
#include "key_fixture.h"
#include "keystore/keystore_rsa.h"
#include "modern_mode.h"

namespace NV::test {
namespace {

TEST(TokenWarning, isTheSeriousOneOfTwo)
{
    CK_TOKEN_INFO token{};
    EXPECT_EQ(tokenWarning(token), PINWarning::none);
    token.flags = ~(CKF_USER_PIN_COUNT_LOW | CKF_USER_PIN_FINAL_TRY);
    EXPECT_EQ(tokenWarning(token), PINWarning::none);
    token.flags = CKF_USER_PIN_COUNT_LOW;
    EXPECT_EQ(tokenWarning(token), PINWarning::fewTries);
    token.flags = CKF_USER_PIN_FINAL_TRY;
    EXPECT_EQ(tokenWarning(token), PINWarning::lastTry);
    token.flags = CKF_USER_PIN_COUNT_LOW | CKF_USER_PIN_FINAL_TRY;
    EXPECT_EQ(tokenWarning(token), PINWarning::lastTry);
}

class PinSubject : public testing::Test {
protected:
    PinSubject()
    {
        key_.setKeyId(L"01AB");
        token_.addCertificate(Bytes{0x01, 0xAB}, certificateDer("rsa2048"));
        token_.addRsaKeyPair({0x01, 0xAB}, 2048);
        EXPECT_TRUE(p11_.loadModule(ScriptedToken::path()));
        slot_.setId(kSlot);
        CK_TOKEN_INFO early{};
        std::fill(std::begin(early.label), std::end(early.label), static_cast<CK_UTF8CHAR>(' '));
        early.label[0] = 'e';
        early.flags = CKF_USER_PIN_FINAL_TRY;
        slot_.setTokenInfo(early);
    }

    PINSubject subject() { return pinSubject(p11_, slot_, key_, certStore_); }

    ScriptedToken token_;
    LogCapture log_;
    ModernMode modern_;
    Pkcs11 p11_;
    P11Slot slot_;
    P11RSAKeyObject key_;
    CertStore certStore_;
};

TEST_F(PinSubject, namesTheCertificatesSubject)
{
    ASSERT_TRUE(certStore_.loadCertificates(p11_, &slot_, L"odd provider"));
    EXPECT_EQ(subject().certificate, L"KeyWarden rsa2048");
    EXPECT_EQ(subject().keyName, L"01AB");
}

// Not for each dialog.
TEST_F(PinSubject, takesTheCertificateApartOnce)
{
    ASSERT_TRUE(certStore_.loadCertificates(p11_, &slot_, L"odd provider"));
    const auto linesOfReading = [&] {
        return ofFunction(log_.takeLines(), "NV::P11CertObject::extractSubject").size();
    };
    EXPECT_EQ(linesOfReading(), 2U);  // ENTER and LEAVE
    EXPECT_EQ(subject().certificate, L"KeyWarden rsa2048");
    EXPECT_EQ(subject().certificate, L"KeyWarden rsa2048");
    EXPECT_EQ(linesOfReading(), 0U);
}

TEST_F(PinSubject, hasNoSubjectForAKeyWithoutCertificate)
{
    EXPECT_EQ(subject().certificate, L"");
    EXPECT_EQ(subject().keyName, L"01AB");
}

TEST_F(PinSubject, hasNoSubjectForWhatIsNoCertificate)
{
    token_.clearObjects();
    token_.addCertificate(Bytes{0x01, 0xAB}, Bytes{0x30, 0x00});
    ASSERT_TRUE(certStore_.loadCertificates(p11_, &slot_, L"odd provider"));
    EXPECT_EQ(subject().certificate, L"");
}

TEST_F(PinSubject, asksTheTokenEachTime)
{
    token_.clearCalls();
    EXPECT_EQ(subject().warning, PINWarning::none);
    EXPECT_TRUE(subject().tokenLabel.starts_with(L"Odd Label 52 "));
    token_.addSlot(kSlot, kSlotFlags, kTokenFlags | CKF_USER_PIN_COUNT_LOW);
    EXPECT_EQ(subject().warning, PINWarning::fewTries);
    token_.addSlot(kSlot, kSlotFlags, kTokenFlags | CKF_USER_PIN_FINAL_TRY);
    EXPECT_EQ(subject().warning, PINWarning::lastTry);
    EXPECT_EQ(token_.callNames(), std::vector<std::string>(4, "C_GetTokenInfo"));
}

TEST_F(PinSubject, hasTheEarlierLabelAndNoWarningWhenTheTokenDoesNotAnswer)
{
    for (const CK_RV failure :
         {CKR_DEVICE_ERROR, CKR_CRYPTOKI_NOT_INITIALIZED, CKR_SLOT_ID_INVALID}) {
        token_.fail("C_GetTokenInfo", failure, 1);
        const PINSubject told = subject();
        EXPECT_EQ(told.tokenLabel, L"e" + std::wstring(31, L' '));
        EXPECT_EQ(told.warning, PINWarning::none);
    }
    token_.throwFrom("C_GetTokenInfo", 1);
    EXPECT_EQ(subject().warning, PINWarning::none);
}

TEST_F(PinSubject, convertsTheEarlierLabelFromUtf8)
{
    CK_TOKEN_INFO early{};
    // 32 bytes that end in the middle of a character.
    const std::string label = "K\xC3\xA4rtchen" + std::string(22, 'x') + "\xC3";
    ASSERT_EQ(label.size(), sizeof early.label);
    std::copy(label.begin(), label.end(), early.label);
    slot_.setTokenInfo(early);
    token_.fail("C_GetTokenInfo", CKR_DEVICE_ERROR, 1);
    EXPECT_EQ(subject().tokenLabel, L"K\u00E4rtchen" + std::wstring(22, L'x') + L"\uFFFD");
}

}  // namespace
}  // namespace NV::test
