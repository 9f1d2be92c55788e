// Operations that need a PIN and get none: M26, and M3 for an empty PIN.

#include "operation_fixture.h"

namespace NV::test {

namespace {

class SilentTest : public TokenOperationTest {
protected:
    // Without a driver: a dialog would answer with another status.
    void expectSilent(SECURITY_STATUS given) { expectRefused(NTE_SILENT_CONTEXT, given); }

    SECURITY_STATUS agree(NCRYPT_KEY_HANDLE peer, DWORD flags)
    {
        return table()->SecretAgreement(handle(), ec, peer, &secret, flags);
    }

    NCRYPT_SECRET_HANDLE secret = 0xEEEE;
};

class SilentPromptTest : public ModernModuleTest {
protected:
    // On this machine, a key of the configuration stays until another one names it.
    ~SilentPromptTest() override
    {
        provider.reset();
        module.reset();
        profile.writeModernConfigFor(ScriptedToken::widePath(), "silentPrompt=no\n");
        module.emplace();
    }
};

}  // namespace

TEST_F(SilentTest, theSilentFlagKeepsTheDialogFromAppearing)
{
    expectSilent(sign(rsa, 256, nullptr, NCRYPT_SILENT_FLAG));
    expectSilent(sign(ec, 64, nullptr, NCRYPT_SILENT_FLAG));
    expectSilent(decrypt(rsa, Bytes(256), 256, nullptr, BCRYPT_PAD_PKCS1 | NCRYPT_SILENT_FLAG));
    expectSilent(agree(ec, NCRYPT_SILENT_FLAG));
    EXPECT_EQ(0xEEEEU, secret);
    EXPECT_NE(std::string::npos, messages(takeLines(), "ERR").find("NCRYPT_SILENT_FLAG"));
}

TEST_F(SilentTest, whatNeedsNoPinIsDoneSilently)
{
    EXPECT_EQ(status(ERROR_SUCCESS), sign(rsa, 0, nullptr, NCRYPT_SILENT_FLAG));
    EXPECT_EQ(256U, output.length);
    EXPECT_EQ(status(ERROR_SUCCESS),
              decrypt(rsa, Bytes(256), 0, nullptr, BCRYPT_PAD_PKCS1 | NCRYPT_SILENT_FLAG));
    EXPECT_EQ(status(ERROR_SUCCESS),
              verify(rsa, signatureOf(CKM_RSA_PKCS, hash, 256), nullptr, NCRYPT_SILENT_FLAG));
    EXPECT_EQ(status(ERROR_SUCCESS),
              encrypt(rsa, hash, 256, nullptr, BCRYPT_PAD_PKCS1 | NCRYPT_SILENT_FLAG));
}

// What is wrong with the call comes before the question for the PIN.
TEST_F(SilentTest, otherRefusalsComeFirst)
{
    EXPECT_EQ(status(NTE_INVALID_HANDLE), sign(0x77, 256, nullptr, NCRYPT_SILENT_FLAG));
    EXPECT_EQ(status(NTE_BUFFER_TOO_SMALL), sign(rsa, 255, nullptr, NCRYPT_SILENT_FLAG));
    EXPECT_EQ(status(NTE_NOT_SUPPORTED),
              decrypt(ec, Bytes(64), 64, nullptr, BCRYPT_PAD_PKCS1 | NCRYPT_SILENT_FLAG));
    EXPECT_EQ(status(NTE_INVALID_HANDLE), agree(0x77, NCRYPT_SILENT_FLAG));
    EXPECT_TRUE(token.calls().empty());
}

TEST_F(SilentPromptTest, theDialogIsShownAllTheSame)
{
    profile.writeModernConfigFor(ScriptedToken::widePath(), "silentPrompt=yes\n");
    token.addCertificate(Bytes{0x01, 0xAB}, certificateDer("rsa2048"));
    token.addRsaKeyPair({0x01, 0xAB}, 2048);
    start();
    Bytes hash = someBytes(32);
    Bytes signature(256);
    DWORD length = 0;
    DialogDriver dialog(DialogDriver::entering(std::wstring(kPin.begin(), kPin.end())));
    EXPECT_EQ(status(ERROR_SUCCESS),
              table()->SignHash(handle(), openKey(L"01AB"), nullptr, hash.data(), 32,
                                signature.data(), 256, &length, NCRYPT_SILENT_FLAG));
    EXPECT_EQ(1, dialog.answered());
}

TEST_F(SilentTest, withoutTheFlagTheDialogAppears)
{
    EXPECT_EQ(status(ERROR_SUCCESS), withPin([&] { return sign(rsa, 256); }));
}

}  // namespace NV::test
