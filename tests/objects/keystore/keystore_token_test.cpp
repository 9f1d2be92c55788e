// The sequence that token operations share: its lines and its calls. What a failing step logs is tested
// for each operation (fault_test.cpp, secret_fault_test.cpp), what it leaves in the fault matrix.

#include <cstring>
#include <stdexcept>

#include "keystore/keystore_mechanism.h"
#include "keystore/keystore_token.h"
#include "operation_calls.h"
#include "token_layer_fixture.h"

namespace NV::test {

namespace {

constexpr Site operation = makeSite("SECURITY_STATUS NV::Operation::run(int)", "operation.cpp", 7);
constexpr TokenSequence::CleanUp cleanUp{5, 6, 7};

class TokenSequenceTest : public LoadedLayerTest {
protected:
    const Bytes id{0x01, 0xAB};
    std::string pinText{kPin};

    void SetUp() override
    {
        LoadedLayerTest::SetUp();
        capture.takeLines();
    }

    static SecretBytes secret(std::string_view text) { return {text.begin(), text.end()}; }
    std::string operationLog() { return log("NV::Operation::run"); }

    // What an operation with the private key does, without work of its own.
    SECURITY_STATUS run()
    {
        TokenSequence sequence(p11, kSlot, operation);
        worked = sequence.initialize() && sequence.openSession() &&
                 sequence.login(secret(pinText)) &&
                 sequence.findKey(3, CKO_PRIVATE_KEY, CKK_RSA, id);
        key = sequence.key();
        session = sequence.session();
        return sequence.finish(cleanUp);
    }

    bool worked = false;
    CK_OBJECT_HANDLE key = 0;
    CK_SESSION_HANDLE session = 0;
};

constexpr std::string_view initializeLines = R"(
TRC NV::Operation::run:0) Try to initialize
)";

constexpr std::string_view openLines =
    R"(TRC NV::Operation::run:1) Try to open a new session 
TRC NV::Operation::run:Success to open session (0000000000005e55)
)";

constexpr std::string_view loginLines = R"(TRC NV::Operation::run:2) Try to login the token 
TRC NV::Operation::run:Success to login the token
)";

constexpr std::string_view searchLines =
    R"(TRC NV::Operation::run:3) Try to find private key object of the token 
TRC NV::Operation::run:Success to initialize FindObject of the token
)";

constexpr std::string_view foundLines =
    R"(DBG NV::Operation::run:Success to Found 1 Object (must be 1)
TRC NV::Operation::run:Found private key object = 00000000000000b2
)";

constexpr std::string_view searchEndLines =
    R"(TRC NV::Operation::run:Success to finalize the FindObject
)";

constexpr std::string_view logoutLines = R"(TRC NV::Operation::run:5) Try to logout the token 
TRC NV::Operation::run:Success to logout the token
)";

constexpr std::string_view closeLines =
    R"(TRC NV::Operation::run:6) Try to close the session (0000000000005e55)
TRC NV::Operation::run:Success to close session
)";

constexpr std::string_view finalizeLines = R"(TRC NV::Operation::run:7) Try to finalize
)";

TEST_F(TokenSequenceTest, RunsFromInitialisingToFinalising)
{
    token.addRsaKeyPair(id, 1024);
    EXPECT_EQ(ERROR_SUCCESS, run());
    EXPECT_TRUE(worked);
    EXPECT_EQ(0xB2U, key);
    EXPECT_EQ(kFirstSession, session);
    expectLines(joined({initializeLines, openLines, loginLines, searchLines, foundLines,
                        searchEndLines, logoutLines, closeLines, finalizeLines}),
                operationLog());
    EXPECT_EQ(privateKeyCalls(rsaKey, ""), joined(token.calls()));
    EXPECT_FALSE(token.initialised());
}

TEST_F(TokenSequenceTest, ALibraryThatIsInitialisedAlreadyStaysSo)
{
    token.addRsaKeyPair(id, 1024);
    ASSERT_EQ(CKR_OK, token.exports().C_Initialize(nullptr));
    EXPECT_EQ(ERROR_SUCCESS, run());
    expectLines(joined({initializeLines, openLines, loginLines, searchLines, foundLines,
                        searchEndLines, logoutLines, closeLines}),
                operationLog());
    EXPECT_TRUE(token.calls("C_Finalize").empty());
    EXPECT_TRUE(token.initialised());
}

TEST_F(TokenSequenceTest, ALibraryThatIsInitialisedAlreadyStaysSoAfterAFailure)
{
    ASSERT_EQ(CKR_OK, token.exports().C_Initialize(nullptr));
    token.fail("C_OpenSession", CKR_SESSION_COUNT);
    EXPECT_EQ(NTE_INTERNAL_ERROR, run());
    expectLines(joined({initializeLines, "TRC NV::Operation::run:1) Try to open a new session \n",
                        "ERR NV::Operation::run:Failed to open session "
                        "(000000b1(CKR_SESSION_COUNT))\n"}),
                operationLog());
    EXPECT_TRUE(token.calls("C_Finalize").empty());
}

TEST_F(TokenSequenceTest, AWrongPinIsAFailure)
{
    pinText = "wrong";
    EXPECT_EQ(NTE_INTERNAL_ERROR, run());
    EXPECT_NE(std::string::npos,
              operationLog().find("ERR NV::Operation::run:Failed to login the token "
                                  "(000000a0(CKR_PIN_INCORRECT))\n"));
    EXPECT_TRUE(token.calls("C_Logout").empty());
    EXPECT_EQ(1U, token.calls("C_CloseSession").size());
}

TEST_F(TokenSequenceTest, AnEmptyPinDoesNotReachTheToken)
{
    pinText.clear();
    EXPECT_EQ(NTE_INTERNAL_ERROR, run());
    EXPECT_NE(std::string::npos,
              operationLog().find("ERR NV::Operation::run:Failed to login the token "
                                  "(00000005(CKR_GENERAL_ERROR))\n"));
    EXPECT_TRUE(token.calls("C_Login").empty());
}

TEST_F(TokenSequenceTest, WithoutAKeyTheSearchIsNotFinished)
{
    EXPECT_EQ(NTE_INTERNAL_ERROR, run());
    EXPECT_FALSE(worked);
    expectLines(joined({initializeLines, openLines, loginLines, searchLines,
                        R"(DBG NV::Operation::run:Success to Found 0 Object (must be 1)
ERR NV::Operation::run:There is no suitable private key object
)",
                        logoutLines, closeLines, finalizeLines}),
                operationLog());
    EXPECT_TRUE(token.calls("C_FindObjectsFinal").empty());
}

TEST_F(TokenSequenceTest, KeysOfAnotherTypeOrIdentifierDoNotSuit)
{
    token.addEcKeyPair(id, 32);
    token.addRsaKeyPair({0x01, 0xAC}, 1024);
    EXPECT_EQ(NTE_INTERNAL_ERROR, run());
    EXPECT_FALSE(worked);
}

TEST_F(TokenSequenceTest, OfSeveralKeysTheFirstServes)
{
    for (int i = 0; i < 3; ++i)
        token.addRsaKeyPair(id, 1024);
    EXPECT_EQ(ERROR_SUCCESS, run());
    EXPECT_EQ(0xB2U, key);
    expectLines(joined({initializeLines, openLines, loginLines, searchLines,
                        R"(DBG NV::Operation::run:Success to Found 3 Object (must be 1)
WRN NV::Operation::run:There are multiple private key objects for the token (use first one)
TRC NV::Operation::run:Found private key object = 00000000000000b2
)",
                        searchEndLines, logoutLines, closeLines, finalizeLines}),
                operationLog());
}

TEST_F(TokenSequenceTest, FindsAPublicKeyWithoutLogin)
{
    token.addEcKeyPair(id, 32);
    TokenSequence sequence(p11, kSlot, operation);
    EXPECT_TRUE(sequence.initialize() && sequence.openSession("1) Try to open a new session") &&
                sequence.findKey(2, CKO_PUBLIC_KEY, CKK_EC, id));
    EXPECT_EQ(0xB1U, sequence.key());
    EXPECT_EQ(ERROR_SUCCESS, sequence.finish({0, 4, 5}));
    expectLines(joined({initializeLines, R"(TRC NV::Operation::run:1) Try to open a new session
TRC NV::Operation::run:Success to open session (0000000000005e55)
TRC NV::Operation::run:2) Try to find public key object of the token 
TRC NV::Operation::run:Success to initialize FindObject of the token
DBG NV::Operation::run:Success to Found 1 Object (must be 1)
TRC NV::Operation::run:Found public key object = 00000000000000b1
TRC NV::Operation::run:Success to finalize the FindObject
TRC NV::Operation::run:4) Try to close the session (0000000000005e55)
TRC NV::Operation::run:Success to close session
TRC NV::Operation::run:5) Try to finalize
)"}),
                operationLog());
    EXPECT_EQ("C_FindObjectsInit(session=0x5E55, "
              "template={0x0=02000000,0x100=03000000,0x102=01AB})",
              token.calls("C_FindObjectsInit").at(0));
}

TEST_F(TokenSequenceTest, PublicKeysAreNamedInItsMessages)
{
    TokenSequence sequence(p11, kSlot, operation);
    EXPECT_TRUE(sequence.initialize() && sequence.openSession());
    EXPECT_FALSE(sequence.findKey(2, CKO_PUBLIC_KEY, CKK_RSA, id));
    token.addRsaKeyPair(id, 1024);
    token.addRsaKeyPair(id, 1024);
    p11.C_FindObjectsFinal(sequence.session());
    EXPECT_TRUE(sequence.findKey(2, CKO_PUBLIC_KEY, CKK_RSA, id));
    const std::string lines = operationLog();
    EXPECT_NE(std::string::npos,
              lines.find("ERR NV::Operation::run:There is no suitable public key object\n"));
    EXPECT_NE(std::string::npos,
              lines.find("WRN NV::Operation::run:There are multiple public key objects for the "
                         "token (use first one)\n"));
    // The first failure has decided.
    EXPECT_EQ(NTE_INTERNAL_ERROR, sequence.finish(cleanUp));
}

TEST_F(TokenSequenceTest, LooksAtNoMoreThan1024Keys)
{
    const Silence silence;
    for (int i = 0; i < 1025; ++i)
        token.addObject({numberAttribute(CKA_CLASS, CKO_PUBLIC_KEY),
                         numberAttribute(CKA_KEY_TYPE, CKK_RSA), Attribute{CKA_ID, id}});
    TokenSequence sequence(p11, kSlot, operation);
    ASSERT_TRUE(sequence.initialize() && sequence.openSession());
    EXPECT_TRUE(sequence.findKey(2, CKO_PUBLIC_KEY, CKK_RSA, id));
    EXPECT_EQ(0xB1U, sequence.key());
    EXPECT_EQ(Strings{"C_FindObjects(session=0x5E55, max=1024, objects=given, count=given)"},
              token.calls("C_FindObjects"));
    EXPECT_EQ(ERROR_SUCCESS, sequence.finish(cleanUp));
}

TEST_F(TokenSequenceTest, BelievesNoCountAboveItsBuffer)
{
    token.addRsaKeyPair(id, 1024);
    token.lengthPastBuffer("C_FindObjects");
    EXPECT_EQ(ERROR_SUCCESS, run());
    EXPECT_EQ(0xB2U, key);
    EXPECT_NE(
        std::string::npos,
        operationLog().find("DBG NV::Operation::run:Success to Found 1024 Object (must be 1)\n"));
}

TEST_F(TokenSequenceTest, AnOperationsOwnFailureDecidesToo)
{
    TokenSequence sequence(p11, kSlot, operation);
    ASSERT_TRUE(sequence.initialize());
    EXPECT_TRUE(sequence.check(CKR_OK, "not said "));
    EXPECT_FALSE(sequence.check(CKR_DATA_LEN_RANGE, "Failed work "));
    EXPECT_TRUE(sequence.check(CKR_OK, "not said "));
    EXPECT_EQ(NTE_INTERNAL_ERROR, sequence.finish(cleanUp));
    expectLines(joined({initializeLines,
                        "ERR NV::Operation::run:Failed work (00000021(CKR_DATA_LEN_RANGE))\n",
                        finalizeLines}),
                operationLog());

    TokenSequence other(p11, kSlot, operation);
    other.fail();
    EXPECT_EQ(NTE_INTERNAL_ERROR, other.finish(cleanUp));
}

TEST_F(TokenSequenceTest, NothingDoneIsNothingToCleanUp)
{
    {
        TokenSequence sequence(p11, kSlot, operation);
        EXPECT_EQ(ERROR_SUCCESS, sequence.finish(cleanUp));
    }
    EXPECT_EQ("", log());
    EXPECT_EQ(Strings{}, token.calls());
}

TEST_F(TokenSequenceTest, CleansUpWhenAnExceptionUnwinds)
{
    token.addRsaKeyPair(id, 1024);
    const auto interrupted = [&] {
        TokenSequence sequence(p11, kSlot, operation);
        if (sequence.initialize() && sequence.openSession() && sequence.login(secret(pinText)))
            throw std::runtime_error("work failed");
    };
    EXPECT_THROW(interrupted(), std::runtime_error);
    EXPECT_EQ((Strings{"C_Initialize", "C_OpenSession", "C_Login", "C_Logout", "C_CloseSession",
                       "C_Finalize"}),
              token.callNames());
    EXPECT_FALSE(token.initialised());
    expectLines(joined({initializeLines, openLines, loginLines}), operationLog());
}

TEST_F(TokenSequenceTest, CleansUpOnlyWhatWasDone)
{
    {
        TokenSequence sequence(p11, kSlot, operation);
        sequence.initialize();
    }
    EXPECT_EQ((Strings{"C_Initialize", "C_Finalize"}), token.callNames());
    token.clearCalls();
    ASSERT_EQ(CKR_OK, token.exports().C_Initialize(nullptr));
    {
        TokenSequence sequence(p11, kSlot, operation);
        sequence.initialize();
        sequence.openSession();
    }
    EXPECT_EQ((Strings{"C_Initialize", "C_Initialize", "C_OpenSession", "C_CloseSession"}),
              token.callNames());
}

TEST(TokenSequencePartsTest, LengthsStayWithinTheBuffer)
{
    const char buffer = 0;
    EXPECT_EQ(5U, lengthWithin(&buffer, 8, 5));
    EXPECT_EQ(8U, lengthWithin(&buffer, 8, 8));
    EXPECT_EQ(8U, lengthWithin(&buffer, 8, 9));
    EXPECT_EQ(9U, lengthWithin(nullptr, 8, 9));
}

TEST(TokenSequencePartsTest, AttributesPointAtTheirValues)
{
    const char value[] = "abc";
    const CK_ATTRIBUTE made = attribute(CKA_ID, value, 3);
    EXPECT_EQ(CKA_ID, +made.type);
    EXPECT_EQ(value, +made.pValue);
    EXPECT_EQ(3U, +made.ulValueLen);
}

TEST(TokenSequencePartsTest, MechanismParametersAreCopied)
{
    CK_RSA_PKCS_PSS_PARAMS parameters{CKM_SHA256, CKG_MGF1_SHA256, 32};
    OwnedMechanism mechanism(CKM_RSA_PKCS_PSS, parameters);
    const CK_RSA_PKCS_PSS_PARAMS before = parameters;
    parameters.sLen = 99;
    ASSERT_NE(nullptr, +mechanism.get()->pParameter);
    EXPECT_NE(static_cast<void*>(&parameters), +mechanism.get()->pParameter);
    EXPECT_EQ(12U, +mechanism.get()->ulParameterLen);
    EXPECT_EQ(0, std::memcmp(&before, mechanism.get()->pParameter, sizeof before));
    EXPECT_EQ(CKM_RSA_PKCS_PSS, mechanism.type());
}

TEST(TokenSequencePartsTest, MovingAMechanismKeepsItsParametersInPlace)
{
    OwnedMechanism first(CKM_RSA_PKCS_PSS, CK_RSA_PKCS_PSS_PARAMS{CKM_SHA256, CKG_MGF1_SHA256, 32});
    const void* parameters = first.get()->pParameter;
    OwnedMechanism second = std::move(first);
    EXPECT_EQ(parameters, +second.get()->pParameter);
    EXPECT_EQ(CKM_RSA_PKCS_PSS, second.type());
    second = OwnedMechanism(CKM_RSA_PKCS);
    EXPECT_EQ(CKM_RSA_PKCS, second.type());
    EXPECT_EQ(nullptr, second.get()->pParameter);
    EXPECT_EQ(0U, second.get()->ulParameterLen);
}

}  // namespace

}  // namespace NV::test
