// Secret agreement through the table: its arguments, the PIN, what it says and what it gives.

#include <cstring>

#include "secrets_fixture.h"
#include "trace_file.h"

namespace NV::test {

namespace {

class AgreementTest : public SecretsTest {
protected:
    AgreementTest() : peer(importPeer()) { forget(); }
    ~AgreementTest() override
    {
        EXPECT_EQ(success, module()->FreeKey(provider(), peer));
        if (secret != untouched)
            module()->FreeSecret(provider(), secret);
    }

    SECURITY_STATUS agree(DialogDriver::Script script, DWORD flags = 0)
    {
        const DialogDriver driver(std::move(script));
        return module()->SecretAgreement(provider(), key(), peer, &secret, flags);
    }

    NCRYPT_KEY_HANDLE peer;
    NCRYPT_SECRET_HANDLE secret = untouched;
};

std::string expectedPeerLines()
{
    const Bytes point = peerPoint(32);
    return "DBG Peer's public key(b64)=[" + base64Encode(point) + "]\nDBG Peer's public key=[" +
           hexEncode(point) + "], 65 bytes\n";
}

}  // namespace

TEST_F(AgreementTest, NullArgumentsAreInvalid)
{
    const DialogDriver none(DialogDriver::cancelling(), 0);
    EXPECT_EQ(NTE_INVALID_PARAMETER,
              module()->SecretAgreement(provider(), 0, peer, &secret, NCRYPT_SILENT_FLAG));
    EXPECT_EQ(NTE_INVALID_PARAMETER, module()->SecretAgreement(provider(), key(), 0, &secret, 0));
    EXPECT_EQ(NTE_INVALID_PARAMETER,
              module()->SecretAgreement(provider(), key(), peer, nullptr, 0));
    // Before the handle is looked up.
    EXPECT_EQ(NTE_INVALID_PARAMETER,
              module()->SecretAgreement(provider(), untouched, 0, nullptr, 0));
    EXPECT_EQ("", said("SecretAgreement"));
    EXPECT_TRUE(token().calls().empty());
    EXPECT_EQ(untouched, secret);
}

TEST_F(AgreementTest, AnUnknownPrivateKeyIsAnInvalidHandle)
{
    const DialogDriver none(DialogDriver::cancelling(), 0);
    EXPECT_EQ(NTE_INVALID_HANDLE, module()->SecretAgreement(provider(), 0x52D7, peer, &secret, 0));
    EXPECT_EQ("ERR Not Found Key = NULL\n", said("SecretAgreement"));
    // A key of the other provider is unknown to this one.
    EXPECT_EQ(NTE_INVALID_HANDLE,
              module()->SecretAgreement(provider(), keyOfOther(), peer, &secret, 0));
    EXPECT_TRUE(token().calls().empty());
    EXPECT_EQ(untouched, secret);
}

TEST_F(AgreementTest, LogsAllItDoes)
{
    ASSERT_EQ(success, agree(DialogDriver::entering(userPin), NCRYPT_SILENT_FLAG));
    EXPECT_NE(untouched, secret);
    const LogLines lines = ofFunction(takeLines(), "NV::Provider::SecretAgreement");
    expectTrace(lines, "dll/secrets/agreement/logs_all_it_does",
                {{"BASE64", base64Encode(peerPoint(32))}, {"HEX", hexEncode(peerPoint(32))}});
    const auto logins = token().calls("C_Login");
    ASSERT_EQ(1u, logins.size());
    EXPECT_TRUE(logins.front().ends_with("userType=1, pin=odd-PIN-7391)")) << logins.front();
}

// 12 packed bytes: the length, and a pointer to the secret.
TEST_F(AgreementTest, TheHandleIsTheRecordsAddress)
{
    ASSERT_EQ(success, agree(DialogDriver::entering(userPin)));
    const auto* record = reinterpret_cast<const unsigned char*>(secret);
    uint32_t length = 0;
    std::memcpy(&length, record, sizeof length);
    ASSERT_EQ(32u, length);
    const unsigned char* bytes = nullptr;
    std::memcpy(&bytes, record + 4, sizeof bytes);
    EXPECT_EQ(agreedBytes(), Bytes(bytes, bytes + length));
}

TEST_F(AgreementTest, ACancelledDialogIsTheStatus)
{
    EXPECT_EQ(NTE_USER_CANCELLED, agree(DialogDriver::cancelling()));
    EXPECT_EQ(untouched, secret);
    EXPECT_TRUE(token().calls().empty());
    EXPECT_EQ("TRC Found Key = PTR\n", said("SecretAgreement"));
}

TEST_F(AgreementTest, AWrongPinIsAnInternalError)
{
    EXPECT_EQ(NTE_INTERNAL_ERROR, agree(DialogDriver::entering(L"odd-PIN-0000")));
    EXPECT_EQ(untouched, secret);
    EXPECT_EQ("TRC Found Key = PTR\n"
              "TRC Success to retrive the entered pin = 12 (bytes)\n" +
                  expectedPeerLines() + "ERR SecretAgreement() failed with error-code:0x8009002d\n",
              said("SecretAgreement"));
    EXPECT_EQ((std::vector<std::string>{"C_Initialize", "C_OpenSession", "C_Login",
                                        "C_CloseSession", "C_Finalize"}),
              token().callNames());
}

TEST_F(AgreementTest, AnRsaKeyCannotAgree)
{
    const DialogDriver driver(DialogDriver::entering(userPin));
    EXPECT_EQ(NTE_NOT_SUPPORTED, module()->SecretAgreement(provider(), rsaKey(), peer, &secret, 0));
    EXPECT_EQ(untouched, secret);
    EXPECT_TRUE(token().calls().empty());
    const std::string text = said("SecretAgreement");
    EXPECT_TRUE(text.ends_with("ERR SecretAgreement() failed with error-code:0x80090029\n"))
        << text;
}

// What a failing clean-up leaves is not handed out, and not in the list.
TEST_F(AgreementTest, AFailureAfterTheSecretWasReadGivesNoSecret)
{
    token().fail("C_Logout", CKR_DEVICE_ERROR, 1);
    EXPECT_EQ(NTE_INTERNAL_ERROR, agree(DialogDriver::entering(userPin)));
    EXPECT_EQ(untouched, secret);
    ASSERT_EQ(success, agree(DialogDriver::entering(userPin)));
    takeLines();
    EXPECT_EQ(success, module()->FreeSecret(provider(), secret));
    EXPECT_EQ("DBG Found secretHandle(PTR) in managed Global SecretHandle List of size (1)\n",
              said("FreeSecret"));
    secret = untouched;
}

// The peer may be any key of the provider: here the token's own public key.
TEST_F(AgreementTest, ThePeerIsTakenAsItIs)
{
    const DialogDriver driver(DialogDriver::entering(userPin));
    EXPECT_EQ(success, module()->SecretAgreement(provider(), key(), key(), &secret, 0));
    EXPECT_NE(untouched, secret);
}

// Another curve's point is the token's to refuse.
TEST_F(AgreementTest, APointOfAnotherCurveIsAnInternalError)
{
    const NCRYPT_KEY_HANDLE other = import(peerBlob(ecdhP384, 48));
    {
        const DialogDriver driver(DialogDriver::entering(userPin));
        EXPECT_EQ(NTE_INTERNAL_ERROR,
                  module()->SecretAgreement(provider(), key(), other, &secret, 0));
    }
    EXPECT_EQ(untouched, secret);
    EXPECT_EQ(success, module()->FreeKey(provider(), other));
}

}  // namespace NV::test
