// The statuses of failed token calls: M12.

#include "operation_fixture.h"

namespace NV::test {

namespace {

struct Row {
    CK_RV result;
    HRESULT status;
};

constexpr Row rows[] = {
    {CKR_PIN_INCORRECT, SCARD_W_WRONG_CHV},
    {CKR_PIN_INVALID, SCARD_W_WRONG_CHV},
    {CKR_PIN_LEN_RANGE, SCARD_W_WRONG_CHV},
    {CKR_PIN_LOCKED, SCARD_W_CHV_BLOCKED},
    {CKR_PIN_EXPIRED, NTE_PASSWORD_CHANGE_REQUIRED},
    {CKR_USER_PIN_NOT_INITIALIZED, SCARD_W_CARD_NOT_AUTHENTICATED},
    {CKR_FUNCTION_CANCELED, NTE_USER_CANCELLED},
    {CKR_BUFFER_TOO_SMALL, NTE_BUFFER_TOO_SMALL},
    {CKR_DATA_LEN_RANGE, NTE_BAD_LEN},
    {CKR_TOKEN_NOT_PRESENT, SCARD_W_REMOVED_CARD},
    {CKR_DEVICE_REMOVED, SCARD_W_REMOVED_CARD},
    {CKR_SLOT_ID_INVALID, SCARD_W_REMOVED_CARD},
    {CKR_TOKEN_NOT_RECOGNIZED, SCARD_W_UNSUPPORTED_CARD},
    {CKR_MECHANISM_INVALID, NTE_NOT_SUPPORTED},
    {CKR_MECHANISM_PARAM_INVALID, NTE_NOT_SUPPORTED},
    {CKR_KEY_FUNCTION_NOT_PERMITTED, NTE_NOT_SUPPORTED},
    {CKR_FUNCTION_NOT_SUPPORTED, NTE_NOT_SUPPORTED},
    {CKR_HOST_MEMORY, NTE_NO_MEMORY},
    {CKR_DEVICE_MEMORY, NTE_NO_MEMORY},
    {CKR_GENERAL_ERROR, NTE_INTERNAL_ERROR},
    {CKR_SESSION_HANDLE_INVALID, NTE_INTERNAL_ERROR},
    {0x80000007, NTE_INTERNAL_ERROR},
};

class TokenResultTest : public TokenOperationTest {
protected:
    SECURITY_STATUS signWithPin()
    {
        return withPin([&] { return sign(rsa, 256); });
    }
    SECURITY_STATUS verifyGood() { return verify(rsa, signatureOf(CKM_RSA_PKCS, hash, 256)); }
};

}  // namespace

TEST_F(TokenResultTest, eachResultOfALoginHasItsStatus)
{
    for (const Row& row : rows) {
        SCOPED_TRACE(row.result);
        token.fail("C_Login", row.result, 1);
        EXPECT_EQ(status(row.status), signWithPin());
        EXPECT_TRUE(output.untouched());
        EXPECT_EQ(0U, token.openSessions());
    }
    EXPECT_EQ(status(ERROR_SUCCESS), signWithPin());
}

TEST_F(TokenResultTest, eachCallOfASignatureTranslatesItsResult)
{
    for (const char* function : {"C_OpenSession", "C_Login", "C_FindObjectsInit", "C_FindObjects",
                                 "C_FindObjectsFinal", "C_SignInit", "C_Sign"}) {
        SCOPED_TRACE(function);
        token.fail(function, CKR_DEVICE_REMOVED, 1);
        EXPECT_EQ(status(SCARD_W_REMOVED_CARD), signWithPin());
        EXPECT_EQ(0xEEEEU, output.length);
    }
}

TEST_F(TokenResultTest, aFailingCleanUpAfterSuccessDecides)
{
    for (const char* function : {"C_Logout", "C_CloseSession"}) {
        SCOPED_TRACE(function);
        token.fail(function, CKR_TOKEN_NOT_PRESENT, 1);
        EXPECT_EQ(status(SCARD_W_REMOVED_CARD), signWithPin());
        EXPECT_EQ(0xEEEEU, output.length);
    }
}

TEST_F(TokenResultTest, theFirstFailureDecides)
{
    token.fail("C_Sign", CKR_DATA_LEN_RANGE, 1);
    token.fail("C_Logout", CKR_DEVICE_REMOVED, 1);
    token.fail("C_CloseSession", CKR_HOST_MEMORY, 1);
    EXPECT_EQ(status(NTE_BAD_LEN), signWithPin());
    // A first result without a row decides, too.
    token.fail("C_Sign", CKR_FUNCTION_FAILED, 1);
    token.fail("C_Logout", CKR_DEVICE_REMOVED, 1);
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), signWithPin());
}

TEST_F(TokenResultTest, aMissingPrivateKeyIsNoKey)
{
    token.clearObjects();
    EXPECT_EQ(status(NTE_NO_KEY), signWithPin());
    EXPECT_EQ(status(NTE_NO_KEY), withPin([&] { return decrypt(rsa, Bytes(256), 256); }));
    // It is the first failure, whatever the clean-up says.
    token.fail("C_CloseSession", CKR_DEVICE_REMOVED, 1);
    EXPECT_EQ(status(NTE_NO_KEY), signWithPin());
}

TEST_F(TokenResultTest, theOtherOperationsTranslateToo)
{
    token.fail("C_Verify", CKR_DEVICE_REMOVED, 1);
    EXPECT_EQ(status(SCARD_W_REMOVED_CARD), verifyGood());
    token.fail("C_Encrypt", CKR_DATA_LEN_RANGE, 1);
    EXPECT_EQ(status(NTE_BAD_LEN), encrypt(rsa, hash, 256));
    EXPECT_TRUE(output.untouched());
    const Bytes cipher = encryptPkcs1(someBytes(4));
    token.fail("C_Decrypt", CKR_KEY_FUNCTION_NOT_PERMITTED, 1);
    EXPECT_EQ(status(NTE_NOT_SUPPORTED), withPin([&] { return decrypt(rsa, cipher, 256); }));
    EXPECT_TRUE(output.untouched());
}

// The token says so by itself: too much data for the padding.
TEST_F(TokenResultTest, dataThatIsTooLongIsABadLength)
{
    hash = someBytes(246);
    EXPECT_EQ(status(NTE_BAD_LEN), signWithPin());
    EXPECT_EQ(status(NTE_BAD_LEN), encrypt(rsa, Bytes(246), 256));
}

TEST_F(ModernModuleTest, openingKeepsItsStatus)
{
    module.emplace();
    token.fail("C_Initialize", CKR_DEVICE_REMOVED);
    NCRYPT_PROV_HANDLE opened = 0;
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), (*module)->OpenProvider(&opened, L"", 0));
    token.clearFaults();
}

}  // namespace NV::test
