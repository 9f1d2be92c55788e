// The lines of the six token operations, in their order: after success, with no and with several
// objects, and in a process that has initialised the library already.

#include "key_fixture.h"
#include "trace_file.h"

namespace NV::test {

namespace {

class OperationLogTest : public KeyTest {
protected:
    Bytes encrypted()
    {
        return run({.operation = Operation::rsaEncrypt, .flags = 0x2, .input = someBytes(4)})
            .output;
    }
};

const std::string hash32 = hexEncode(someBytes(32));

}  // namespace

TEST_F(OperationLogTest, rsaSign)
{
    const Result result = run({.operation = Operation::rsaSign});
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, result.status);
    expectTrace(log.takeLines(), "keys/rsa_sign",
                {{"HASH", hash32}, {"SIGNATURE", hexEncode(result.output)}});
}

TEST_F(OperationLogTest, rsaSignWithDigestInfoShowsTheBareHash)
{
    BCRYPT_PKCS1_PADDING_INFO padding{L"SHA256"};
    run({.operation = Operation::rsaSign, .flags = 0x2, .padding = &padding});
    EXPECT_TRUE(hasLine(linesOf(Operation::rsaSign),
                        "TRC NV::P11RSAKeyObject::sign:pbHashValue = " + hash32));
}

TEST_F(OperationLogTest, rsaVerify)
{
    run({.operation = Operation::rsaVerify,
         .signature = signatureOf(CKM_RSA_PKCS, someBytes(32), 256)});
    expectTrace(log.takeLines(), "keys/rsa_verify");
}

TEST_F(OperationLogTest, rsaEncrypt)
{
    run({.operation = Operation::rsaEncrypt, .flags = 0x2, .input = someBytes(4)});
    expectTrace(log.takeLines(), "keys/rsa_encrypt");
}

TEST_F(OperationLogTest, rsaDecrypt)
{
    const Bytes cipherText = encrypted();
    log.takeLines();
    run({.operation = Operation::rsaDecrypt, .flags = 0x2, .input = cipherText});
    expectTrace(log.takeLines(), "keys/rsa_decrypt");
}

TEST_F(OperationLogTest, ecSign)
{
    const Result result = run({.operation = Operation::ecSign, .room = 64});
    expectTrace(log.takeLines(), "keys/ec_sign",
                {{"HASH", hash32}, {"SIGNATURE", hexEncode(result.output)}});
}

TEST_F(OperationLogTest, ecVerify)
{
    run({.operation = Operation::ecVerify, .signature = signatureOf(CKM_ECDSA, someBytes(32), 64)});
    expectTrace(log.takeLines(), "keys/ec_verify");
}

// The rest of the file applies to each operation.

struct OperationRow {
    const char* name;
    Operation operation;
    const char* kind;
    const char* missingHeadings;
    const char* missingCalls;
};

void PrintTo(const OperationRow& row, std::ostream* out)
{
    *out << row.name;
}

constexpr const char* privateCalls =
    "C_Initialize\nC_OpenSession\nC_Login\nC_FindObjectsInit\nC_FindObjects\nC_Logout\n"
    "C_CloseSession\nC_Finalize\n";
constexpr const char* publicCalls =
    "C_Initialize\nC_OpenSession\nC_FindObjectsInit\nC_FindObjects\nC_CloseSession\nC_Finalize\n";

constexpr OperationRow rows[] = {
    {"rsaSign", Operation::rsaSign, "private", "0 1 2 3 5 6 7", privateCalls},
    {"rsaVerify", Operation::rsaVerify, "public", "0 1 2 4 5", publicCalls},
    {"rsaEncrypt", Operation::rsaEncrypt, "public", "0 1 2 4 5", publicCalls},
    {"rsaDecrypt", Operation::rsaDecrypt, "private", "0 1 2 3 5 6 7", privateCalls},
    {"ecSign", Operation::ecSign, "private", "0 1 2 3 5 6 5", privateCalls},
    {"ecVerify", Operation::ecVerify, "public", "0 1 2 4 5", publicCalls},
};

class EveryOperationTest : public OperationLogTest,
                           public testing::WithParamInterface<OperationRow> {
protected:
    // Arguments with which the operation succeeds.
    Run good()
    {
        const Operation operation = GetParam().operation;
        Run what{.operation = operation, .flags = 0x2};
        if (operation == Operation::rsaVerify)
            what.signature = signatureOf(CKM_RSA_PKCS, what.input, 256);
        if (operation == Operation::ecVerify)
            what.signature = signatureOf(CKM_ECDSA, what.input, 64);
        if (operation == Operation::rsaDecrypt)
            what.input = encrypted();
        forget();
        return what;
    }
};

TEST_P(EveryOperationTest, withoutAMatchingObjectFailsAndCleansUp)
{
    const Run what = good();
    token.clearObjects();
    const Result result = run(what);
    EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR}, result.status);
    EXPECT_EQ(GetParam().missingCalls, joined(token.callNames()));
    const LogLines lines = linesOf(GetParam().operation);
    EXPECT_EQ("There is no suitable " + std::string(GetParam().kind) + " key object\n",
              messages(lines, "ERR"));
    EXPECT_EQ("Success to Found 0 Object (must be 1)\n", messages(lines, "DBG"));
    EXPECT_EQ(GetParam().missingHeadings, headings(lines));
    EXPECT_FALSE(token.initialised());
}

TEST_P(EveryOperationTest, withSeveralObjectsWarnsAndUsesTheFirst)
{
    const Run what = good();
    token.addRsaKeyPair({0x01, 0xAB}, 2048);
    token.addEcKeyPair({0x02, 0x56}, 32);
    const Result result = run(what);
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, result.status);
    const LogLines lines = linesOf(GetParam().operation);
    EXPECT_EQ("There are multiple " + std::string(GetParam().kind) +
                  " key objects for the token (use first one)\n",
              messages(lines, "WRN"));
    EXPECT_EQ("", messages(lines, "ERR"));
    EXPECT_EQ("Success to Found 2 Object (must be 1)\n", messages(lines, "DBG"));
}

TEST_P(EveryOperationTest, inAnInitialisedLibraryLeavesTheFinaliseOut)
{
    const Run what = good();
    CK_FUNCTION_LIST exports = token.exports();
    ASSERT_EQ(CKR_OK, exports.C_Initialize(nullptr));
    token.clearCalls();
    const Result result = run(what);
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, result.status);
    EXPECT_TRUE(token.calls("C_Finalize").empty());
    EXPECT_EQ(1U, token.calls("C_CloseSession").size());
    EXPECT_TRUE(token.initialised());
    const LogLines lines = linesOf(GetParam().operation);
    EXPECT_EQ("", messages(lines, "ERR"));
    EXPECT_FALSE(headings(lines).ends_with("7") || headings(lines).ends_with("6 5") ||
                 headings(lines).ends_with("4 5"))
        << headings(lines);
    EXPECT_EQ(CKR_OK, exports.C_Finalize(nullptr));
}

TEST_P(EveryOperationTest, whenCleanUpFailsTooEveryFailureIsLoggedAndEveryStepTried)
{
    const Run what = good();
    token.fail("C_FindObjects", CKR_DEVICE_REMOVED);
    token.fail("C_Logout", CKR_FUNCTION_FAILED);
    token.fail("C_CloseSession", CKR_SESSION_HANDLE_INVALID);
    token.fail("C_Finalize", CKR_GENERAL_ERROR);
    EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR}, run(what).status);
    EXPECT_EQ(GetParam().missingCalls, joined(token.callNames()));
    const bool login = std::string(GetParam().kind) == "private";
    EXPECT_EQ("Failed to find Object (00000032(CKR_DEVICE_REMOVED))\n" +
                  std::string(login ? "Failed to logout the token (00000006(CKR_FUNCTION_FAILED))\n"
                                    : "") +
                  "Failed to close session (000000b3(CKR_SESSION_HANDLE_INVALID))\n"
                  "Failed C_Finalize (00000005(CKR_GENERAL_ERROR))\n",
              messages(linesOf(GetParam().operation), "ERR"));
    token.clearFaults();
    CK_FUNCTION_LIST exports = token.exports();
    EXPECT_EQ(CKR_OK, exports.C_Finalize(nullptr));
}

TEST_P(EveryOperationTest, moreObjectsThanTheSearchHoldsAreNotRead)
{
    const Run what = good();
    token.lengthPastBuffer("C_FindObjects");
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, run(what).status);
    EXPECT_EQ("Success to Found 1024 Object (must be 1)\n",
              messages(linesOf(GetParam().operation), "DBG"));
}

INSTANTIATE_TEST_SUITE_P(Operations, EveryOperationTest, testing::ValuesIn(rows),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace NV::test
