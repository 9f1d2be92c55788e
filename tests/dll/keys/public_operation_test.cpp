// Verification and encryption through the table: the token's calls, and the whole trace of one of
// each.

#include "module_fixture.h"
#include "trace_file.h"

namespace NV::test {

namespace {

class PublicOperationTest : public ServedKeysTest {
protected:
    SECURITY_STATUS verify(NCRYPT_KEY_HANDLE key, Bytes signature)
    {
        return table()->VerifySignature(handle(), key, nullptr, hash.data(), 32, signature.data(),
                                        static_cast<DWORD>(signature.size()), 0);
    }
    SECURITY_STATUS encrypt(Output& output, DWORD room)
    {
        return table()->Encrypt(handle(), rsa, hash.data(), 4, nullptr, output.at(), room,
                                &output.length, 0x2);
    }
};

}  // namespace

TEST_F(PublicOperationTest, verifyRunsOneSequence)
{
    EXPECT_EQ(status(ERROR_SUCCESS), verify(rsa, signatureOf(CKM_RSA_PKCS, hash, 256)));
    EXPECT_EQ("C_Initialize\nC_OpenSession\nC_FindObjectsInit\nC_FindObjects\n"
              "C_FindObjectsFinal\nC_VerifyInit\nC_Verify\nC_CloseSession\nC_Finalize\n",
              joined(token.callNames()));
    EXPECT_FALSE(token.initialised());
}

TEST_F(PublicOperationTest, aWrongSignatureIsAnInternalError)
{
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), verify(rsa, Bytes(256)));
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), verify(rsa, Bytes(255)));
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), verify(ec, Bytes(64)));
    EXPECT_EQ(status(ERROR_SUCCESS), verify(ec, signatureOf(CKM_ECDSA, hash, 64)));
    EXPECT_EQ(0U, token.openSessions());
}

TEST_F(PublicOperationTest, aShortCipherTextBufferFailsAndStaysUntouched)
{
    Output output;
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), encrypt(output, 255));
    EXPECT_TRUE(output.untouched());
    EXPECT_EQ(status(ERROR_SUCCESS), encrypt(output, 256));
    EXPECT_TRUE(output.onlyWritten(256));
    EXPECT_EQ(256U, output.length);
}

TEST_F(PublicOperationTest, encryptAnswersASizeQueryFromTheToken)
{
    DWORD length = 0;
    EXPECT_EQ(status(ERROR_SUCCESS),
              table()->Encrypt(handle(), rsa, hash.data(), 4, nullptr, nullptr, 0, &length, 0x2));
    EXPECT_EQ(256U, length);
}

// The certificate has the public key, and it is not used.
TEST_F(PublicOperationTest, aMissingPublicKeyIsAnInternalError)
{
    token.clearObjects();
    Output output;
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), verify(rsa, signatureOf(CKM_RSA_PKCS, hash, 256)));
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), encrypt(output, 256));
    EXPECT_TRUE(output.untouched());
}

TEST_F(PublicOperationTest, theTraceOfAWholeVerification)
{
    EXPECT_EQ(status(ERROR_SUCCESS), verify(ec, signatureOf(CKM_ECDSA, hash, 64)));
    expectTrace(takeLines(), "dll/keys/verify");
}

}  // namespace NV::test
