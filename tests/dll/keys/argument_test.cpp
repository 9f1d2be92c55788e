// What VerifySignature and Encrypt check before they turn to the token, and SignHash's question for
// the length. The operations that may ask for the PIN are in dialog_argument_test.cpp.

#include "module_fixture.h"
#include "trace_file.h"

namespace NV::test {

namespace {

class ArgumentTest : public ServedKeysTest {
protected:
    SECURITY_STATUS verify(NCRYPT_KEY_HANDLE key, BYTE* hashValue, DWORD hashLength,
                           BYTE* signatureBytes, DWORD signatureLength, void* padding = nullptr,
                           DWORD flags = 0)
    {
        return table()->VerifySignature(handle(), key, padding, hashValue, hashLength,
                                        signatureBytes, signatureLength, flags);
    }
    SECURITY_STATUS encrypt(NCRYPT_KEY_HANDLE key, void* padding, DWORD flags)
    {
        return table()->Encrypt(handle(), key, hash.data(), 32, padding, output.at(), 256,
                                &output.length, flags);
    }

    // Levels and messages of the provider's method below TRC.
    std::string notes(const std::string& method)
    {
        return levelsAndMessages(selected(linesOf("NV::Provider::" + method),
                                          [](const LogLine& line) { return line.level != "TRC"; }));
    }

    Output output;
    Bytes signature = signatureOf(CKM_RSA_PKCS, someBytes(32), 256);
    BCRYPT_PKCS1_PADDING_INFO pkcs1{L"SHA256"};
    BCRYPT_PSS_PADDING_INFO pss{L"SHA1", 20};
    BCRYPT_OAEP_PADDING_INFO oaep{L"SHA1", nullptr, 0};
};

}  // namespace

TEST_F(ArgumentTest, verifyRefusesWrongArgumentsBeforeTheToken)
{
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), verify(rsa, nullptr, 32, signature.data(), 256));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), verify(rsa, hash.data(), 0, signature.data(), 256));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), verify(rsa, hash.data(), 32, signature.data(), 0));
    // Arguments come before the handle.
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), verify(0x77, nullptr, 0, nullptr, 0));
    const LogLines lines = takeLines();
    EXPECT_EQ("", messages(lines, "ERR"));
    EXPECT_TRUE(token.calls().empty());
}

TEST_F(ArgumentTest, verifyPassesANullSignatureToTheToken)
{
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), verify(rsa, hash.data(), 32, nullptr, 0));
    EXPECT_EQ(1U, token.calls("C_Verify").size());
}

TEST_F(ArgumentTest, verifyOfAnUnknownHandlePrintsNull)
{
    for (const NCRYPT_KEY_HANDLE key : {NCRYPT_KEY_HANDLE{0}, NCRYPT_KEY_HANDLE{0x77}, handle()}) {
        EXPECT_EQ(status(NTE_INVALID_HANDLE), verify(key, hash.data(), 32, signature.data(), 256));
        EXPECT_EQ("ERR Not Found Key = NULL\n", notes("VerifySignature"));
    }
    EXPECT_TRUE(token.calls().empty());
}

TEST_F(ArgumentTest, verifyLogsItsPadding)
{
    EXPECT_EQ(status(NTE_INTERNAL_ERROR),
              verify(rsa, hash.data(), 32, signature.data(), 256, &pkcs1, 0x2));
    EXPECT_EQ("DBG BCRYPT_PAD_PKCS1 is enabled\nDBG pkcs1PaddingInfo->pszAlgId=SHA256\n",
              notes("VerifySignature"));
    EXPECT_EQ(status(NTE_INTERNAL_ERROR),
              verify(rsa, hash.data(), 20, signature.data(), 256, &pss, 0x8));
    EXPECT_EQ("DBG BCRYPT_PAD_PSS is enabled\nDBG pssPaddingInfo->pszAlgId=SHA1\n"
              "DBG pssPaddingInfo->cbSalt=20\n",
              notes("VerifySignature"));
    EXPECT_EQ(status(NTE_INTERNAL_ERROR),
              verify(rsa, hash.data(), 20, signature.data(), 256, &pss, 0xA));
    EXPECT_EQ("DBG BCRYPT_PAD_PKCS1 is enabled\nDBG pkcs1PaddingInfo->pszAlgId=SHA1\n"
              "DBG BCRYPT_PAD_PSS is enabled\nDBG pssPaddingInfo->pszAlgId=SHA1\n"
              "DBG pssPaddingInfo->cbSalt=20\n",
              notes("VerifySignature"));
}

TEST_F(ArgumentTest, verifyNeedsItsPaddingInformation)
{
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              verify(rsa, hash.data(), 32, signature.data(), 256, nullptr, 0x2));
    EXPECT_EQ("DBG BCRYPT_PAD_PKCS1 is enabled\n"
              "ERR There is no padding info for BCRYPT_PAD_PKCS1\n",
              notes("VerifySignature"));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              verify(rsa, hash.data(), 32, signature.data(), 256, nullptr, 0x8));
    EXPECT_EQ("DBG BCRYPT_PAD_PSS is enabled\nERR There is no padding info for BCRYPT_PAD_PSS\n",
              notes("VerifySignature"));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              verify(0x77, hash.data(), 32, signature.data(), 256, nullptr, 0xA));
    EXPECT_EQ("DBG BCRYPT_PAD_PKCS1 is enabled\n"
              "ERR There is no padding info for BCRYPT_PAD_PKCS1\n"
              "DBG BCRYPT_PAD_PSS is enabled\nERR There is no padding info for BCRYPT_PAD_PSS\n",
              notes("VerifySignature"));
    EXPECT_TRUE(token.calls().empty());
}

TEST_F(ArgumentTest, verifyIgnoresTheFlagsOfEncryption)
{
    EXPECT_EQ(status(ERROR_SUCCESS),
              verify(rsa, hash.data(), 32, signature.data(), 256, nullptr, 0x5));
    EXPECT_EQ("", notes("VerifySignature"));
}

TEST_F(ArgumentTest, encryptRefusesWrongArgumentsBeforeTheToken)
{
    const auto call = [&](DWORD room, DWORD* length, NCRYPT_KEY_HANDLE key) {
        return table()->Encrypt(handle(), key, hash.data(), 32, nullptr, output.at(), room, length,
                                0x2);
    };
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), call(0, &output.length, rsa));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), call(256, nullptr, rsa));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), call(256, nullptr, 0x77));
    EXPECT_EQ("", messages(takeLines(), "ERR"));
    EXPECT_TRUE(output.untouched());
    EXPECT_TRUE(token.calls().empty());
}

TEST_F(ArgumentTest, encryptOfAnUnknownHandlePrintsNull)
{
    for (const NCRYPT_KEY_HANDLE key : {NCRYPT_KEY_HANDLE{0}, NCRYPT_KEY_HANDLE{0x77}, handle()}) {
        EXPECT_EQ(status(NTE_INVALID_HANDLE), encrypt(key, nullptr, 0x1));
        EXPECT_EQ("DBG BCRYPT_PAD_NONE is enabled\nERR Not Found Key = NULL\n", notes("Encrypt"));
    }
    EXPECT_TRUE(output.untouched());
    EXPECT_TRUE(token.calls().empty());
}

TEST_F(ArgumentTest, encryptPkcs1WithoutInformationWarnsAndProceeds)
{
    EXPECT_EQ(status(ERROR_SUCCESS), encrypt(rsa, nullptr, 0x2));
    EXPECT_EQ("DBG BCRYPT_PAD_PKCS1 is enabled\n"
              "WRN There is no padding info for BCRYPT_PAD_PKCS1\n",
              notes("Encrypt"));
    EXPECT_EQ(256U, output.length);
    EXPECT_TRUE(output.onlyWritten(256));
}

TEST_F(ArgumentTest, encryptOaepNeedsItsInformation)
{
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), encrypt(rsa, nullptr, 0x4));
    EXPECT_EQ("DBG BCRYPT_PAD_OAEP is enabled\nERR There is no padding info for BCRYPT_PAD_OAEP\n",
              notes("Encrypt"));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), encrypt(rsa, nullptr, 0x6));
    EXPECT_EQ("DBG BCRYPT_PAD_PKCS1 is enabled\n"
              "WRN There is no padding info for BCRYPT_PAD_PKCS1\n"
              "DBG BCRYPT_PAD_OAEP is enabled\nERR There is no padding info for BCRYPT_PAD_OAEP\n",
              notes("Encrypt"));
    EXPECT_TRUE(output.untouched());
    EXPECT_TRUE(token.calls().empty());
}

TEST_F(ArgumentTest, encryptLogsItsPadding)
{
    EXPECT_EQ(status(ERROR_SUCCESS), encrypt(rsa, &oaep, 0x4));
    EXPECT_EQ("DBG BCRYPT_PAD_OAEP is enabled\nDBG oaepPaddingInfo->pszAlgId=SHA1\n",
              notes("Encrypt"));
    EXPECT_EQ(status(ERROR_SUCCESS), encrypt(rsa, &pkcs1, 0x2));
    EXPECT_EQ("DBG BCRYPT_PAD_PKCS1 is enabled\nDBG pkcs1PaddingInfo->pszAlgId=SHA256\n",
              notes("Encrypt"));
}

TEST_F(ArgumentTest, encryptWithoutPaddingSkipsTheTestsOfTheOtherPaddings)
{
    // The key object still lets the later flag choose.
    EXPECT_EQ(status(ERROR_SUCCESS), encrypt(rsa, nullptr, 0x7));
    EXPECT_EQ("DBG BCRYPT_PAD_NONE is enabled\n", notes("Encrypt"));
    EXPECT_EQ("C_EncryptInit(session=0x5E56, mechanism=0x1, parameter=null, key=0xB2)\n",
              joined(token.calls("C_EncryptInit")));
}

TEST_F(ArgumentTest, encryptOnAnEcKeyIsNotSupportedAndLeavesTheTokenAlone)
{
    EXPECT_EQ(status(NTE_NOT_SUPPORTED), encrypt(ec, nullptr, 0x2));
    EXPECT_TRUE(output.untouched());
    EXPECT_TRUE(token.calls().empty());
}

TEST_F(ArgumentTest, encryptPassesUnknownFlagsThrough)
{
    EXPECT_EQ(status(ERROR_SUCCESS), encrypt(rsa, nullptr, 0xFFFFFF02 & ~0x4U));
    EXPECT_EQ(256U, output.length);
}

TEST_F(ArgumentTest, signHashGivesTheLengthWithoutDialogOrToken)
{
    for (const auto& [key, expected] : {std::pair{rsa, 256U}, std::pair{ec, 64U}}) {
        DWORD length = 0;
        EXPECT_EQ(status(ERROR_SUCCESS), table()->SignHash(handle(), key, nullptr, hash.data(), 32,
                                                           nullptr, 0, &length, 0x40));
        EXPECT_EQ(expected, length);
        expectTrace(linesOf("NV::Provider::SignHash"),
                    "dll/keys/argument/sign_hash_gives_the_length_without_dialog_or_token");
    }
    EXPECT_TRUE(token.calls().empty());
}

TEST_F(ArgumentTest, theProviderWorksOnAfterEveryRefusal)
{
    verify(0x77, nullptr, 0, nullptr, 0);
    encrypt(0x77, nullptr, 0x4);
    table()->Encrypt(handle(), rsa, nullptr, 0, nullptr, nullptr, 0, nullptr, 0xFFFFFFFF);
    EXPECT_EQ(status(ERROR_SUCCESS), verify(rsa, hash.data(), 32, signature.data(), 256));
    EXPECT_EQ(status(ERROR_SUCCESS), encrypt(rsa, nullptr, 0x2));
}

}  // namespace NV::test
