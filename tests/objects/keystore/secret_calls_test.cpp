// The PKCS#11 calls of agreement and derivation, literally: for every curve, and for both derivation
// functions with every hash.

#include "operation_calls.h"
#include "secret_fixture.h"

namespace NV::test {

namespace {

struct CurveCase {
    const char* name;
    const wchar_t* keyId;
    size_t coordinateSize;
    const char* id;
    const char* key;
};

void PrintTo(const CurveCase& row, std::ostream* out)
{
    *out << row.name;
}

constexpr CurveCase curveCases[] = {
    {"P256", L"0256", 32, "0256", "0xB2"},
    {"P384", L"0384", 48, "0384", "0xB4"},
    {"P521", L"0521", 66, "0521", "0xB6"},
};

class AgreementCallsTest : public SecretTest, public testing::WithParamInterface<CurveCase> {};

}  // namespace

TEST_P(AgreementCallsTest, areExactlyThese)
{
    const CurveCase& row = GetParam();
    const Agreement agreement = agree(row.keyId, row.coordinateSize);
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, agreement.status);
    EXPECT_EQ(privateKeyCalls(
                  std::string("0x100=03000000,0x102=") + row.id,
                  "C_DeriveKey(session=0x5E55, mechanism=0x1050, "
                  "parameter={kdf=0x1,sharedData=null,publicData=" +
                      hexEncode(peerPoint(row.coordinateSize)) + "}, baseKey=" + row.key +
                      ", template={0x1=00,0x0=04000000,0x100=10000000,0x103=00,0x162=01,0x104=01,"
                      "0x105=01})\n"
                      "C_GetAttributeValue(session=0x5E55, object=0xD501, template={0x11=null})\n"
                      "C_GetAttributeValue(session=0x5E55, object=0xD501, template={0x11=room[" +
                      std::to_string(row.coordinateSize) + "]})\n"),
              joined(token.calls()));
    EXPECT_FALSE(token.initialised());
    EXPECT_EQ(0u, token.openSessions());
}

TEST_P(AgreementCallsTest, theRecordHoldsTheSecret)
{
    const CurveCase& row = GetParam();
    const Agreement agreement = agree(row.keyId, row.coordinateSize);
    ASSERT_NE(nullptr, agreement.secret);
    ASSERT_EQ(row.coordinateSize, agreement.secret->length);
    EXPECT_EQ(agreedSecret(row.coordinateSize),
              Bytes(agreement.secret->bytes, agreement.secret->bytes + agreement.secret->length));
}

// The block is the token's to read until the call has returned.
TEST_P(AgreementCallsTest, holdForATokenThatReadsTheParametersAgain)
{
    token.setParametersReread(true);
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS},
              agree(GetParam().keyId, GetParam().coordinateSize).status);
}

INSTANTIATE_TEST_SUITE_P(Curves, AgreementCallsTest, testing::ValuesIn(curveCases),
                         [](const auto& row) { return row.param.name; });

namespace {

// 4 bytes of length, then the pointer.
TEST(AgreedSecretRecord, isTwelvePackedBytes)
{
    EXPECT_EQ(12u, sizeof(AgreedSecret));
    EXPECT_EQ(0u, offsetof(AgreedSecret, length));
    EXPECT_EQ(4u, offsetof(AgreedSecret, bytes));
}

struct HashCase {
    const wchar_t* hash;
    const char* name;
    const char* digest;
    const char* hmac;
    const char* keyType;
    CK_MECHANISM_TYPE digestType;
    CK_MECHANISM_TYPE hmacType;
    DWORD length;
};

void PrintTo(const HashCase& row, std::ostream* out)
{
    *out << row.name;
}

constexpr HashCase hashCases[] = {
    {L"SHA1", "SHA1", "0x220", "0x221", "28000000", CKM_SHA_1, CKM_SHA_1_HMAC, 20},
    {L"SHA256", "SHA256", "0x250", "0x251", "2B000000", CKM_SHA256, CKM_SHA256_HMAC, 32},
    {L"SHA384", "SHA384", "0x260", "0x261", "2C000000", CKM_SHA384, CKM_SHA384_HMAC, 48},
    {L"SHA512", "SHA512", "0x270", "0x271", "2D000000", CKM_SHA512, CKM_SHA512_HMAC, 64},
};

class DerivationCallsTest : public SecretTest, public testing::WithParamInterface<HashCase> {
protected:
    DerivationRun inThreePieces(bool hmac) const
    {
        return {.hash = GetParam().hash,
                .hmac = hmac,
                .secret = {0x51, 0x52, 0x53},
                .hmacKey = {0xA1, 0xA2},
                .prepend = {0x01},
                .append = {0xF1, 0xF2, 0xF3, 0xF4},
                .room = 80};
    }
    const Bytes input = {0x01, 0x51, 0x52, 0x53, 0xF1, 0xF2, 0xF3, 0xF4};
};

// The whole output: `result`, and untouched bytes behind it.
void expectOutput(const Derived& derived, const Bytes& result)
{
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, derived.status);
    EXPECT_EQ(result.size(), derived.length);
    Bytes expected(derived.output.size(), untouchedByte);
    std::ranges::copy(result, expected.begin());
    EXPECT_EQ(hexEncode(expected), hexEncode(derived.output));
}

}  // namespace

TEST_P(DerivationCallsTest, ofADigest)
{
    const HashCase& row = GetParam();
    const Derived derived = derive(inThreePieces(false));
    expectOutput(derived, digestOf(row.digestType, input));
    EXPECT_EQ(
        operationCalls(
            std::string("C_DigestInit(session=0x5E55, mechanism=") + row.digest +
            ", parameter=null)\nC_Digest(session=0x5E55, data=01515253F1F2F3F4, digest=room[80])\n"),
        joined(token.calls()));
}

TEST_P(DerivationCallsTest, ofAnHmac)
{
    const HashCase& row = GetParam();
    const Derived derived = derive(inThreePieces(true));
    expectOutput(derived, hmacOf(row.hmacType, Bytes{0xA1, 0xA2}, input));
    EXPECT_EQ(
        operationCalls(
            std::string("C_CreateObject(session=0x5E55, template={0x1=00,0x0=04000000,0x100=") +
            row.keyType +
            ",0x103=00,0x2=00,0x108=01,0x10A=01,0x11=A1A2})\n"
            "C_SignInit(session=0x5E55, mechanism=" +
            row.hmac +
            ", parameter=null, key=0xD501)\n"
            "C_Sign(session=0x5E55, data=01515253F1F2F3F4, signature=room[80])\n"),
        joined(token.calls()));
    EXPECT_EQ(0u, token.openSessions());
}

TEST_P(DerivationCallsTest, ofALengthQueryWriteNothingElse)
{
    for (const bool hmac : {false, true}) {
        DerivationRun run = inThreePieces(hmac);
        run.query = true;
        run.room = 0;
        const Derived derived = derive(run);
        EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, derived.status);
        EXPECT_EQ(GetParam().length, derived.length);
    }
    EXPECT_EQ(
        std::vector<std::string>{"C_Digest(session=0x5E55, data=01515253F1F2F3F4, digest=null)"},
        token.calls("C_Digest"));
    EXPECT_EQ(
        std::vector<std::string>{"C_Sign(session=0x5E56, data=01515253F1F2F3F4, signature=null)"},
        token.calls("C_Sign"));
}

TEST_P(DerivationCallsTest, intoABufferOfExactlyTheDigest)
{
    DerivationRun run = inThreePieces(false);
    run.room = GetParam().length;
    expectOutput(derive(run), digestOf(GetParam().digestType, input));
}

// There is no truncation.
TEST_P(DerivationCallsTest, intoASmallerBufferFail)
{
    for (const bool hmac : {false, true}) {
        DerivationRun run = inThreePieces(hmac);
        run.room = GetParam().length - 1;
        const Derived derived = derive(run);
        EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR}, derived.status);
        EXPECT_EQ(untouchedLength, derived.length);
        EXPECT_EQ(Bytes(derived.output.size(), untouchedByte), derived.output);
    }
    const std::string errors =
        spoken(ofLevel(ofFunction(log.takeLines(), derivationFunction), "ERR"));
    EXPECT_EQ("ERR Failed to Digest data, error-code:(00000150(CKR_BUFFER_TOO_SMALL))\n"
              "ERR Failed to HMAC data, error-code:(00000150(CKR_BUFFER_TOO_SMALL))\n",
              errors);
}

TEST_P(DerivationCallsTest, withNothingAroundTheSecret)
{
    DerivationRun run = inThreePieces(false);
    run.prepend.clear();
    run.append.clear();
    expectOutput(derive(run), digestOf(GetParam().digestType, run.secret));
}

INSTANTIATE_TEST_SUITE_P(Hashes, DerivationCallsTest, testing::ValuesIn(hashCases),
                         [](const auto& row) { return row.param.name; });

namespace {

// The library stays with whoever initialised it; its heading is left out, too.
class ForeignInitialisation : public SecretTest {
protected:
    ForeignInitialisation()
    {
        EXPECT_EQ(CKR_OK, exports.C_Initialize(nullptr));
        forget();
    }
    ~ForeignInitialisation() override { EXPECT_EQ(CKR_OK, exports.C_Finalize(nullptr)); }

    CK_FUNCTION_LIST exports = token.exports();
};

TEST_F(ForeignInitialisation, isLeftAlone)
{
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, agree().status);
    const std::string agreement = agreementLines();
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, derive({}).status);
    for (const std::string& lines : {agreement, derivationLines()}) {
        EXPECT_NE(std::string::npos, lines.find("TRC Success to close session\nTRC LEAVE\n"))
            << lines;
        EXPECT_EQ(std::string::npos, lines.find("ERR"));
    }
    EXPECT_TRUE(token.calls("C_Finalize").empty());
    EXPECT_TRUE(token.initialised());
}

TEST_F(SecretTest, anHmacKeyMayBeEmpty)
{
    const Derived derived = derive({.hmac = true});
    EXPECT_EQ(
        std::vector<std::string>{
            "C_CreateObject(session=0x5E55, template={0x1=00,0x0=04000000,0x100=2B000000,"
            "0x103=00,0x2=00,0x108=01,0x10A=01,0x11=null})"},
        token.calls("C_CreateObject"));
    expectOutput(derived, hmacOf(CKM_SHA256_HMAC, Bytes{}, Bytes{0x51, 0x52, 0x53}));
}

TEST_F(SecretTest, theFirstOfSeveralKeysIsUsed)
{
    token.addEcKeyPair({0x02, 0x56}, 32);
    forget();
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, agree().status);
    const auto calls = token.calls("C_DeriveKey");
    ASSERT_EQ(1u, calls.size());
    EXPECT_NE(std::string::npos, calls.front().find("baseKey=0xB2,")) << calls.front();
    const std::string lines = agreementLines();
    EXPECT_NE(std::string::npos,
              lines.find("DBG Success to Found 2 Object (must be 1)\n"
                         "WRN There are multiple private key objects for the token (use first "
                         "one)\n"
                         "TRC Found private key object = PTR\n"))
        << lines;
}

}  // namespace

}  // namespace NV::test
