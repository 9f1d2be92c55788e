// Signing and decrypting through the table, with the PIN typed into the dialog.

#include <chrono>
#include <future>

#include "dialog_driver.h"
#include "module_fixture.h"

namespace NV::test {

namespace {

const std::wstring rightPin(kPin.begin(), kPin.end());

class DialogOperationTest : public ServedKeysTest {
protected:
    SECURITY_STATUS sign(NCRYPT_KEY_HANDLE key, DWORD room = 256, DWORD flags = 0,
                         void* padding = nullptr)
    {
        return table()->SignHash(handle(), key, padding, hash.data(),
                                 static_cast<DWORD>(hash.size()), output.at(), room, &output.length,
                                 flags);
    }
    SECURITY_STATUS decrypt(Bytes input, BYTE* data, DWORD room)
    {
        return table()->Decrypt(handle(), rsa, input.data(), static_cast<DWORD>(input.size()),
                                nullptr, data, room, &output.length, 0x2);
    }
    Bytes written(size_t count) { return {output.at(), output.at() + count}; }

    Output output;
};

}  // namespace

TEST_F(DialogOperationTest, signWritesTheSignatureAndItsLength)
{
    const DialogDriver dialog(DialogDriver::entering(rightPin));
    EXPECT_EQ(status(ERROR_SUCCESS), sign(rsa, 300));
    EXPECT_EQ(256U, output.length);
    EXPECT_TRUE(output.onlyWritten(256));
    EXPECT_EQ(signatureOf(CKM_RSA_PKCS, hash, 256), written(256));
    EXPECT_EQ("C_Login(session=0x5E56, userType=1, pin=odd-PIN-7391)\n",
              joined(token.calls("C_Login")));
}

TEST_F(DialogOperationTest, signWithAnEcKey)
{
    const DialogDriver dialog(DialogDriver::entering(rightPin));
    EXPECT_EQ(status(ERROR_SUCCESS), sign(ec, 64));
    EXPECT_EQ(64U, output.length);
    EXPECT_EQ(signatureOf(CKM_ECDSA, hash, 64), written(64));
}

TEST_F(DialogOperationTest, signSendsDigestInfoAndHash)
{
    BCRYPT_PKCS1_PADDING_INFO sha256{L"SHA256"};
    const DialogDriver dialog(DialogDriver::entering(rightPin));
    EXPECT_EQ(status(ERROR_SUCCESS), sign(rsa, 256, 0x2, &sha256));
    EXPECT_EQ("C_SignInit(session=0x5E56, mechanism=0x1, parameter=null, key=0xB3)\n",
              joined(token.calls("C_SignInit")));
    EXPECT_EQ("C_Sign(session=0x5E56, data=3031300D060960864801650304020105000420" +
                  hexEncode(hash) + ", signature=room[256])\n",
              joined(token.calls("C_Sign")));
}

TEST_F(DialogOperationTest, theSilentFlagDoesNotSuppressTheDialog)
{
    DialogDriver dialog(DialogDriver::entering(rightPin));
    EXPECT_EQ(status(ERROR_SUCCESS), sign(rsa, 256, 0x40));
    EXPECT_EQ(1, dialog.answered());
    EXPECT_EQ("NCRYPT_SILENT_FLAG is enabled\n",
              messages(linesOf("NV::Provider::SignHash"), "DBG"));
}

TEST_F(DialogOperationTest, everySignatureAsksAgain)
{
    DialogDriver dialog(DialogDriver::entering(rightPin), 2);
    EXPECT_EQ(status(ERROR_SUCCESS), sign(rsa));
    EXPECT_EQ(status(ERROR_SUCCESS), sign(rsa));
    EXPECT_EQ(2, dialog.answered());
}

TEST_F(DialogOperationTest, cancelledSignatureAndDecryptionDoNothing)
{
    const Bytes cipherText = encryptPkcs1(someBytes(4));
    forget();
    const DialogDriver dialog(DialogDriver::cancelling(), 2);
    EXPECT_EQ(status(NTE_USER_CANCELLED), sign(rsa));
    EXPECT_EQ(status(NTE_USER_CANCELLED), decrypt(cipherText, output.at(), 256));
    EXPECT_TRUE(output.untouched());
    EXPECT_TRUE(token.calls().empty());
}

TEST_F(DialogOperationTest, aWrongPinIsAnInternalErrorAndTheNextPinWorks)
{
    {
        const DialogDriver dialog(DialogDriver::entering(L"wrong-pin"));
        EXPECT_EQ(status(NTE_INTERNAL_ERROR), sign(rsa));
    }
    EXPECT_TRUE(output.untouched());
    EXPECT_EQ("C_Login(session=0x5E56, userType=1, pin=wrong-pin)\n",
              joined(token.calls("C_Login")));
    EXPECT_EQ(0U, token.openSessions());
    const DialogDriver dialog(DialogDriver::entering(rightPin));
    EXPECT_EQ(status(ERROR_SUCCESS), sign(rsa));
}

TEST_F(DialogOperationTest, aSignatureThatFailsOnTheTokenLeavesTheLengthAlone)
{
    const DialogDriver dialog(DialogDriver::entering(rightPin), 2);
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), sign(rsa, 255));
    EXPECT_TRUE(output.untouched());
    hash = someBytes(300);
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), sign(rsa));
    EXPECT_TRUE(output.untouched());
}

TEST_F(DialogOperationTest, aFailingCloseTurnsAGoodSignatureIntoAnInternalError)
{
    token.fail("C_CloseSession", CKR_DEVICE_ERROR, 1);
    const DialogDriver dialog(DialogDriver::entering(rightPin));
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), sign(rsa));
    EXPECT_EQ(0xEEEEU, output.length);
    EXPECT_EQ(signatureOf(CKM_RSA_PKCS, hash, 256), written(256));
    EXPECT_FALSE(token.initialised());
}

TEST_F(DialogOperationTest, decryptWritesThePlainTextAndItsLength)
{
    const Bytes cipherText = encryptPkcs1(someBytes(5));
    const DialogDriver dialog(DialogDriver::entering(rightPin));
    EXPECT_EQ(status(ERROR_SUCCESS), decrypt(cipherText, output.at(), 100));
    EXPECT_EQ(5U, output.length);
    EXPECT_TRUE(output.onlyWritten(5));
    EXPECT_EQ(someBytes(5), written(5));
}

TEST_F(DialogOperationTest, decryptAsksForThePinEvenForTheLength)
{
    const Bytes cipherText = encryptPkcs1(someBytes(5));
    DialogDriver dialog(DialogDriver::entering(rightPin));
    EXPECT_EQ(status(ERROR_SUCCESS), decrypt(cipherText, nullptr, 0));
    EXPECT_EQ(1, dialog.answered());
    EXPECT_EQ(5U, output.length);
}

TEST_F(DialogOperationTest, decryptWithAShortBufferFails)
{
    const Bytes cipherText = encryptPkcs1(someBytes(5));
    const DialogDriver dialog(DialogDriver::entering(rightPin));
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), decrypt(cipherText, output.at(), 4));
    EXPECT_TRUE(output.untouched());
}

TEST_F(DialogOperationTest, decryptWithAnEcKeyAsksAndIsNotSupported)
{
    const DialogDriver dialog(DialogDriver::entering(rightPin));
    EXPECT_EQ(status(NTE_NOT_SUPPORTED), table()->Decrypt(handle(), ec, hash.data(), 32, nullptr,
                                                          output.at(), 64, &output.length, 0x2));
    EXPECT_TRUE(output.untouched());
    EXPECT_TRUE(token.calls().empty());
}

TEST_F(DialogOperationTest, aMissingPrivateKeyIsAnInternalErrorAfterThePin)
{
    token.clearObjects();
    const DialogDriver dialog(DialogDriver::entering(rightPin));
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), sign(rsa));
    EXPECT_TRUE(output.untouched());
    EXPECT_EQ("There is no suitable private key object\n", messages(takeLines(), "ERR"));
    EXPECT_FALSE(token.initialised());
}

TEST_F(DialogOperationTest, aSecondThreadWaitsUntilTheDialogIsAnswered)
{
    std::future<SECURITY_STATUS> second;
    bool waited = false;
    {
        const DialogDriver dialog([&](const PinDialogWindow& window) {
            second = std::async(std::launch::async,
                                [&] { return table()->IsAlgSupported(handle(), L"RSA", 0); });
            waited = second.wait_for(std::chrono::milliseconds(100)) == std::future_status::timeout;
            window.type(rightPin);
            window.pressOk();
        });
        EXPECT_EQ(status(ERROR_SUCCESS), sign(rsa));
    }
    EXPECT_TRUE(waited);
    ASSERT_TRUE(second.valid());
    EXPECT_EQ(status(ERROR_SUCCESS), second.get());
}

TEST_F(DialogOperationTest, theLogNeverHoldsThePin)
{
    const Bytes cipherText = encryptPkcs1(someBytes(5));
    {
        const DialogDriver dialog(DialogDriver::entering(rightPin), 2);
        EXPECT_EQ(status(ERROR_SUCCESS), sign(rsa));
        EXPECT_EQ(status(ERROR_SUCCESS), decrypt(cipherText, output.at(), 100));
    }
    const DialogDriver dialog(DialogDriver::entering(L"wrong-pin"));
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), sign(rsa));
    const std::string log = render(profile.log());
    EXPECT_EQ(std::string::npos, log.find(kPin));
    EXPECT_EQ(std::string::npos, log.find("wrong-pin"));
    EXPECT_EQ(std::string::npos, log.find(hexEncode(Bytes(kPin.begin(), kPin.end()))));
    EXPECT_NE(std::string::npos, log.find("Success to retrive the entered pin = 12 (bytes)"));
}

}  // namespace NV::test
