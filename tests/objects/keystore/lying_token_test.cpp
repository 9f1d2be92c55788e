// Tokens that report wrong lengths: nothing is written or read past a buffer, and no byte that the
// token did not give comes out as a secret.

#include <cstring>

#include "secret_fixture.h"

namespace NV::test {

namespace {

constexpr CK_ULONG unavailable = ~CK_ULONG{0};

// What the replaced C_GetAttributeValue answers: a length and bytes for each of the two calls.
struct Answers {
    CK_RV firstResult = CKR_OK;
    CK_ULONG firstLength = 32;
    CK_ULONG secondLength = 32;
    CK_ULONG written = 32;  // bytes of 5A in the buffer
    std::vector<CK_ULONG> rooms = {};
};

Answers answers;

CK_RV NV_CK_CALL answerAttributeValue(CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_ATTRIBUTE_PTR entry,
                                      CK_ULONG)
{
    CK_ATTRIBUTE attribute{};
    std::memcpy(&attribute, entry, sizeof attribute);
    const bool first = attribute.pValue == nullptr;
    if (!first) {
        answers.rooms.push_back(attribute.ulValueLen);
        std::memset(attribute.pValue, 0x5A, answers.written);
    }
    attribute.ulValueLen = first ? answers.firstLength : answers.secondLength;
    std::memcpy(entry, &attribute, sizeof attribute);
    return first ? answers.firstResult : CKR_OK;
}

class LyingTokenTest : public SecretTest {
protected:
    // Agrees with a token that answers so about CKA_VALUE.
    Agreement agreeWith(Answers about)
    {
        answers = std::move(about);
        library().C_GetAttributeValue = &answerAttributeValue;
        return agree();
    }

    static Bytes bytesOf(const Agreement& agreement)
    {
        return {agreement.secret->bytes, agreement.secret->bytes + agreement.secret->length};
    }

    std::string errors()
    {
        return spoken(ofLevel(ofFunction(log.takeLines(), agreementFunction), "ERR"));
    }
};

}  // namespace

TEST_F(LyingTokenTest, aTruthfulAnswerIsTheSecret)
{
    const Agreement agreement = agreeWith({});
    ASSERT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, agreement.status);
    EXPECT_EQ(Bytes(32, 0x5A), bytesOf(agreement));
    EXPECT_EQ(std::vector<CK_ULONG>{32}, answers.rooms);
}

TEST_F(LyingTokenTest, aValueThatMayNotBeReadIsAFailure)
{
    const Agreement agreement =
        agreeWith({.firstResult = CKR_ATTRIBUTE_SENSITIVE, .firstLength = unavailable});
    EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR}, agreement.status);
    EXPECT_FALSE(agreement.handleWritten);
    EXPECT_EQ("ERR C_GetAttributeValue() failed while getting attributeValue length with "
              "error-code:(00000011(CKR_ATTRIBUTE_SENSITIVE))\n",
              errors());
}

TEST_F(LyingTokenTest, anUnavailableLengthIsNoLength)
{
    const Agreement agreement = agreeWith({.firstLength = unavailable});
    EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR}, agreement.status);
    EXPECT_FALSE(agreement.handleWritten);
    EXPECT_TRUE(answers.rooms.empty());
    EXPECT_EQ("ERR C_GetAttributeValue() failed while getting attributeValue length with "
              "error-code:(00000011(CKR_ATTRIBUTE_SENSITIVE))\n",
              errors());
    EXPECT_FALSE(token.initialised());
}

// Nothing was read then: a secret of as many zeros as were announced is known to everybody.
TEST_F(LyingTokenTest, anUnavailableLengthOfTheValueItselfIsAFailure)
{
    const Agreement agreement = agreeWith({.secondLength = unavailable, .written = 0});
    EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR}, agreement.status);
    EXPECT_FALSE(agreement.handleWritten);
    EXPECT_EQ(std::vector<CK_ULONG>{32}, answers.rooms);
    EXPECT_EQ("ERR C_GetAttributeValue() failed with "
              "error-code:(00000011(CKR_ATTRIBUTE_SENSITIVE))\n",
              errors());
    EXPECT_FALSE(token.initialised());
}

TEST_F(LyingTokenTest, theSmallerOfTwoLengthsApplies)
{
    for (const auto& [first, second] : {std::pair<CK_ULONG, CK_ULONG>{32, 40},
                                        {32, 31},
                                        {32, 0},
                                        {40, 32},
                                        {1, 0x7FFFFFFF},
                                        {1, unavailable - 1}}) {
        const CK_ULONG smaller = std::min(first, second);
        const Agreement agreement = agreeWith(
            {.firstLength = first, .secondLength = second, .written = std::min(first, 32u)});
        ASSERT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, agreement.status) << first << ' ' << second;
        EXPECT_EQ(Bytes(smaller, 0x5A), bytesOf(agreement)) << first << ' ' << second;
        EXPECT_EQ(std::vector<CK_ULONG>{first}, answers.rooms);
    }
}

// What the token did not write is zero, not what the heap held before.
TEST_F(LyingTokenTest, aBufferThatIsNotFilledIsZero)
{
    const Agreement agreement = agreeWith({.written = 3});
    ASSERT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, agreement.status);
    Bytes expected(32);
    std::fill_n(expected.begin(), 3, 0x5A);
    EXPECT_EQ(expected, bytesOf(agreement));
}

TEST_F(LyingTokenTest, aSecretOfNoBytesIsASecret)
{
    const Agreement agreement = agreeWith({.firstLength = 0, .secondLength = 0, .written = 0});
    ASSERT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, agreement.status);
    EXPECT_EQ(0u, agreement.secret->length);
    EXPECT_NE(nullptr, +agreement.secret->bytes);
    const std::string lines = agreementLines();
    EXPECT_NE(std::string::npos, lines.find("DBG Agreed SharedSecret(0 bytes)=[], \n")) << lines;
}

TEST_F(LyingTokenTest, theScriptedLiesAboutTheValueEndInTheTrueOne)
{
    for (const bool past : {false, true}) {
        if (past)
            token.lengthPastBuffer("C_GetAttributeValue");
        else
            token.secondCountLarger("C_GetAttributeValue");
        const Agreement agreement = agree();
        ASSERT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, agreement.status);
        EXPECT_EQ(agreedSecret(32), bytesOf(agreement));
        token.clearFaults();
    }
}

// The length reported is 7 more than the buffer has; the log and the caller see the buffer's.
TEST_F(LyingTokenTest, anOutputLengthPastTheBufferIsCutToTheBuffer)
{
    for (const bool hmac : {false, true}) {
        token.lengthPastBuffer(hmac ? "C_Sign" : "C_Digest");
        const Derived derived = derive({.hmac = hmac, .room = 40});
        ASSERT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, derived.status);
        EXPECT_EQ(40u, derived.length);
        const Bytes input = {0x51, 0x52, 0x53};
        Bytes expected =
            hmac ? hmacOf(CKM_SHA256_HMAC, Bytes{}, input) : digestOf(CKM_SHA256, input);
        expected.resize(derived.output.size(), untouchedByte);
        EXPECT_EQ(hexEncode(expected), hexEncode(derived.output));
        const std::string lines = derivationLines();
        EXPECT_NE(std::string::npos, lines.find(hmac ? "TRC Success to HMAC data 40(bytes)\n"
                                                     : "TRC Success to Digest data 40(bytes)\n"))
            << lines;
        EXPECT_NE(std::string::npos, lines.find("DBG Derived Key(40 bytes): [" +
                                                hexEncode(derived.output).substr(0, 80) + "]\n"))
            << lines;
        token.clearFaults();
    }
}

// Inside the buffer the token is believed.
TEST_F(LyingTokenTest, aLargerOutputLengthWithinTheBufferIsReturned)
{
    token.secondCountLarger("C_Digest");
    const Derived derived = derive({.room = 64});
    ASSERT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, derived.status);
    EXPECT_EQ(39u, derived.length);
    EXPECT_EQ(Bytes(derived.output.size() - 32, untouchedByte),
              Bytes(derived.output.begin() + 32, derived.output.end()));
}

}  // namespace NV::test
