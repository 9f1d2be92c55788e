// What SignHash and Decrypt check before they ask for the PIN: no refused call shows the dialog,
// touches the token or writes output.

#include "dialog_driver.h"
#include "module_fixture.h"
#include "trace_file.h"

namespace NV::test {

namespace {

// Any dialog is one too many here.
class DialogArgumentTest : public ServedKeysTest {
protected:
    SECURITY_STATUS sign(NCRYPT_KEY_HANDLE key, void* padding, DWORD flags)
    {
        return table()->SignHash(handle(), key, padding, hash.data(), 32, output.at(), 256,
                                 &output.length, flags);
    }
    SECURITY_STATUS decrypt(NCRYPT_KEY_HANDLE key, void* padding, DWORD flags)
    {
        return table()->Decrypt(handle(), key, hash.data(), 32, padding, output.at(), 256,
                                &output.length, flags);
    }

    std::string notes(const std::string& method)
    {
        return levelsAndMessages(selected(linesOf("NV::Provider::" + method),
                                          [](const LogLine& line) { return line.level != "TRC"; }));
    }

    void expectNothingDone()
    {
        EXPECT_TRUE(output.untouched());
        EXPECT_TRUE(token.calls().empty());
    }

    Output output;
    BCRYPT_PKCS1_PADDING_INFO pkcs1{L"SHA256"};
    DialogDriver noDialog{DialogDriver::cancelling(), 0};
};

}  // namespace

TEST_F(DialogArgumentTest, signRefusesWrongArguments)
{
    const auto call = [&](BYTE* hashValue, DWORD hashLength, BYTE* signature, DWORD room,
                          DWORD* length) {
        return table()->SignHash(handle(), rsa, nullptr, hashValue, hashLength, signature, room,
                                 length, 0);
    };
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), call(nullptr, 32, output.at(), 256, &output.length));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              call(hash.data(), 0, output.at(), 256, &output.length));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), call(hash.data(), 32, output.at(), 0, &output.length));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), call(hash.data(), 32, output.at(), 256, nullptr));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), call(hash.data(), 32, nullptr, 0, nullptr));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), call(nullptr, 0, nullptr, 0, &output.length));
    EXPECT_EQ("", messages(takeLines(), "ERR"));
    expectNothingDone();
}

TEST_F(DialogArgumentTest, signNeedsItsPaddingInformation)
{
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), sign(rsa, nullptr, 0x2));
    EXPECT_EQ("DBG BCRYPT_PAD_PKCS1 is enabled\n"
              "ERR There is no padding info for BCRYPT_PAD_PKCS1\n",
              notes("SignHash"));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), sign(rsa, nullptr, 0x8));
    EXPECT_EQ("DBG BCRYPT_PAD_PSS is enabled\nERR There is no padding info for BCRYPT_PAD_PSS\n",
              notes("SignHash"));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), sign(0x77, nullptr, 0xA));
    EXPECT_EQ("DBG BCRYPT_PAD_PKCS1 is enabled\n"
              "ERR There is no padding info for BCRYPT_PAD_PKCS1\n"
              "DBG BCRYPT_PAD_PSS is enabled\nERR There is no padding info for BCRYPT_PAD_PSS\n",
              notes("SignHash"));
    // Also where only the length is asked for.
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              table()->SignHash(handle(), rsa, nullptr, hash.data(), 32, nullptr, 0, &output.length,
                                0x2));
    expectNothingDone();
}

TEST_F(DialogArgumentTest, signOfAnUnknownHandlePrintsNull)
{
    for (const NCRYPT_KEY_HANDLE key : {NCRYPT_KEY_HANDLE{0}, NCRYPT_KEY_HANDLE{0x77}, handle()}) {
        EXPECT_EQ(status(NTE_INVALID_HANDLE), sign(key, &pkcs1, 0x2));
        EXPECT_EQ("DBG BCRYPT_PAD_PKCS1 is enabled\nDBG pkcs1PaddingInfo->pszAlgId=SHA256\n"
                  "ERR Not Found Key = NULL\n",
                  notes("SignHash"));
    }
    expectNothingDone();
}

TEST_F(DialogArgumentTest, signOfAFreedHandleIsRefused)
{
    EXPECT_EQ(status(ERROR_SUCCESS), table()->FreeKey(handle(), rsa));
    EXPECT_EQ(status(NTE_INVALID_HANDLE), sign(rsa, nullptr, 0));
    expectNothingDone();
}

TEST_F(DialogArgumentTest, decryptRefusesWrongArguments)
{
    const auto call = [&](BYTE* input, DWORD inputLength, BYTE* data, DWORD room, DWORD* length) {
        return table()->Decrypt(handle(), rsa, input, inputLength, nullptr, data, room, length,
                                0x2);
    };
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), call(nullptr, 32, output.at(), 256, &output.length));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              call(hash.data(), 0, output.at(), 256, &output.length));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), call(hash.data(), 32, output.at(), 0, &output.length));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), call(hash.data(), 32, output.at(), 256, nullptr));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), call(hash.data(), 32, nullptr, 0, nullptr));
    EXPECT_EQ("", messages(takeLines(), "ERR"));
    expectNothingDone();
}

TEST_F(DialogArgumentTest, decryptNumbersItsArgumentsWithoutFour)
{
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), decrypt(rsa, nullptr, 0x44));
    expectTrace(linesOf("NV::Provider::Decrypt"),
                "dll/keys/dialog_argument/decrypt_numbers_its_arguments_without_four");
    expectNothingDone();
}

TEST_F(DialogArgumentTest, decryptToleratesMissingPkcs1InformationButNotThatOfOaep)
{
    // An unknown handle ends the calls before the dialog.
    EXPECT_EQ(status(NTE_INVALID_HANDLE), decrypt(0x77, nullptr, 0x2));
    EXPECT_EQ("DBG BCRYPT_PAD_PKCS1 is enabled\n"
              "WRN There is no padding info for BCRYPT_PAD_PKCS1\nERR Not Found Key = NULL\n",
              notes("Decrypt"));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), decrypt(0x77, nullptr, 0x6));
    EXPECT_EQ("DBG BCRYPT_PAD_PKCS1 is enabled\n"
              "WRN There is no padding info for BCRYPT_PAD_PKCS1\n"
              "DBG BCRYPT_PAD_OAEP is enabled\nERR There is no padding info for BCRYPT_PAD_OAEP\n",
              notes("Decrypt"));
    EXPECT_EQ(status(NTE_INVALID_HANDLE), decrypt(0x77, nullptr, 0x7));
    EXPECT_EQ("DBG BCRYPT_PAD_NONE is enabled\nERR Not Found Key = NULL\n", notes("Decrypt"));
    expectNothingDone();
}

TEST_F(DialogArgumentTest, otherOperationsNeverAskForThePin)
{
    DWORD length = 0;
    EXPECT_EQ(status(ERROR_SUCCESS),
              table()->SignHash(handle(), rsa, nullptr, hash.data(), 32, nullptr, 0, &length, 0));
    Bytes signature = signatureOf(CKM_RSA_PKCS, hash, 256);
    EXPECT_EQ(status(ERROR_SUCCESS), table()->VerifySignature(handle(), rsa, nullptr, hash.data(),
                                                              32, signature.data(), 256, 0));
    EXPECT_EQ(256U, encryptPkcs1(someBytes(4)).size());
    EXPECT_EQ(status(ERROR_SUCCESS),
              table()->ExportKey(handle(), rsa, 0, L"PUBLICBLOB", nullptr, nullptr, 0, &length, 0));
    EXPECT_TRUE(token.calls("C_Login").empty());
}

}  // namespace NV::test
