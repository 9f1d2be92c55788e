// The lines of agreement and derivation, literally: of a success, and with each of their PKCS#11
// calls failing. With them the calls that still follow, the status, and what the caller finds.

#include <algorithm>

#include "secret_fixture.h"

namespace NV::test {

namespace {

const std::string agreementSuccess = R"(TRC ENTER
TRC ARG[0]:p11=PTR
TRC ARG[1]:pbPeerPubkey=PTR
TRC ARG[2]:cbPeerPubkey=65
TRC ARG[3]:phAgreedSecret=PTR
TRC ARG[4]:pin=12(bytes)
TRC 0) Try to initialize
TRC 1) Try to open a new session 
TRC Success to open session (PTR)
TRC 2) Try to login the token 
TRC Success to login the token
TRC 3) Try to find private key object of the token 
TRC Success to initialize FindObject of the token
DBG Success to Found 1 Object (must be 1)
TRC Found private key object = PTR
TRC Success to finalize the FindObject
TRC 4) Try to derive the secret key using peer's public key..
DBG C_DeriveKey(): successful to get the agreed shared-secret handle, handle=[PTR]
DBG Agreed SharedSecret(32 bytes)=[C35A17E18DC35A17E18DC35A17E18DC35A17E18DC35A17E18DC35A17E18DC35A], 
TRC 5) Try to logout the token 
TRC Success to logout the token
TRC 6) Try to close the session (PTR)
TRC Success to close session
TRC 7) Try to finalize
TRC LEAVE
)";

// The numbers of the arguments leave out 2, and the heading 1 has no blank at its end.
const std::string digestSuccess = R"(TRC ENTER
TRC ARG[0]:p11=PTR
TRC ARG[1]:phAgreedSecret=PTR
TRC ARG[3]:pbDerivedKey=PTR
TRC ARG[4]:cbDerivedKey=64
TRC ARG[5]:pcbResult=PTR
TRC ARG[6]:hashAlgo=SHA1
TRC ARG[7]:useHmacKdf=0
TRC ARG[8]:pbHmacKey=NULL
TRC ARG[9]:cbHmacKey=0
TRC ARG[10]:pbKdfPrepend=PTR
TRC ARG[11]:cbKdfPrepend=1
TRC ARG[12]:pbKdfAppend=PTR
TRC ARG[13]:cbKdfAppend=2
TRC 0) Try to initialize
TRC 1) Try to open a new session
TRC Success to open session (PTR)
TRC 2) Skip creating HMAC secret key session object, since using Hash based KDF
TRC 3) Trying to compute KDF input data: [KDF_SECRET_PREPEND || SHARED_SECRET || KDF_SECRET_APPEND]
DBG Retrieved SharedSecret(3 bytes)=[515253]
DBG KDFInputData(6 bytes)=[01515253F1F2]
TRC 4) Trying to derive the key using [HASH] based KDF..
TRC Success to initialize Digest process
TRC Success to Digest data 20(bytes)
DBG Derived Key(20 bytes): [RESULT]
TRC 5) Try to close the session (PTR)
TRC Success to close session
TRC 6) Try to finalize
TRC LEAVE
)";

const std::string hmacSuccess = R"(TRC ENTER
TRC ARG[0]:p11=PTR
TRC ARG[1]:phAgreedSecret=PTR
TRC ARG[3]:pbDerivedKey=PTR
TRC ARG[4]:cbDerivedKey=64
TRC ARG[5]:pcbResult=PTR
TRC ARG[6]:hashAlgo=SHA1
TRC ARG[7]:useHmacKdf=1
TRC ARG[8]:pbHmacKey=PTR
TRC ARG[9]:cbHmacKey=2
TRC ARG[10]:pbKdfPrepend=PTR
TRC ARG[11]:cbKdfPrepend=1
TRC ARG[12]:pbKdfAppend=PTR
TRC ARG[13]:cbKdfAppend=2
TRC 0) Try to initialize
TRC 1) Try to open a new session
TRC Success to open session (PTR)
TRC 2) Try to create HMAC secret key session object
TRC 3) Trying to compute KDF input data: [KDF_SECRET_PREPEND || SHARED_SECRET || KDF_SECRET_APPEND]
DBG Retrieved SharedSecret(3 bytes)=[515253]
DBG KDFInputData(6 bytes)=[01515253F1F2]
DBG HMAC_KEY(2 bytes)=[A1A2]
TRC 4) Trying to derive the key using [HMAC] based KDF..
TRC Success to initialize HMAC process
TRC Success to HMAC data 20(bytes)
DBG Derived Key(20 bytes): [RESULT]
TRC 5) Try to close the session (PTR)
TRC Success to close session
TRC 6) Try to finalize
TRC LEAVE
)";

enum class Sequence { agreement, digest, hmac };

constexpr const char* nameOf(Sequence sequence)
{
    switch (sequence) {
    case Sequence::agreement:
        return "agreement";
    case Sequence::digest:
        return "digest";
    default:
        return "hmac";
    }
}

struct FaultRow {
    Sequence sequence;
    const char* failing;
    uint32_t nth;  // of the calls of this name
    // The last line that success has as well, and the lines behind it.
    const char* lastCommon;
    const char* rest;
    // The calls behind the failing one.
    const char* cleanUp;
};

void PrintTo(const FaultRow& row, std::ostream* out)
{
    *out << nameOf(row.sequence) << ' ' << row.failing << ' ' << row.nth;
}

constexpr const char* closing = "C_CloseSession\nC_Finalize\n";
constexpr const char* loggingOut = "C_Logout\nC_CloseSession\nC_Finalize\n";

using enum Sequence;

const FaultRow rows[] = {
    {agreement, "C_Initialize", 1, "TRC 0) Try to initialize\n",
     "ERR Failed C_Initialize (00000030(CKR_DEVICE_ERROR))\nTRC LEAVE\n", ""},
    {agreement, "C_OpenSession", 1, "TRC 1) Try to open a new session \n",
     "ERR Failed to open session (00000030(CKR_DEVICE_ERROR))\nTRC 7) Try to finalize\nTRC LEAVE\n",
     "C_Finalize\n"},
    {agreement, "C_Login", 1, "TRC 2) Try to login the token \n",
     "ERR Failed to login the token (00000030(CKR_DEVICE_ERROR))\n"
     "TRC 6) Try to close the session (PTR)\nTRC Success to close session\n"
     "TRC 7) Try to finalize\nTRC LEAVE\n",
     closing},
    {agreement, "C_FindObjectsInit", 1, "TRC 3) Try to find private key object of the token \n",
     "ERR Failed to initialize FindObject (00000030(CKR_DEVICE_ERROR))\n"
     "TRC 5) Try to logout the token \nTRC Success to logout the token\n"
     "TRC 6) Try to close the session (PTR)\nTRC Success to close session\n"
     "TRC 7) Try to finalize\nTRC LEAVE\n",
     loggingOut},
    {agreement, "C_FindObjects", 1, "TRC Success to initialize FindObject of the token\n",
     "ERR Failed to find Object (00000030(CKR_DEVICE_ERROR))\n"
     "TRC 5) Try to logout the token \nTRC Success to logout the token\n"
     "TRC 6) Try to close the session (PTR)\nTRC Success to close session\n"
     "TRC 7) Try to finalize\nTRC LEAVE\n",
     loggingOut},
    {agreement, "C_FindObjectsFinal", 1, "TRC Found private key object = PTR\n",
     "ERR Failed to finalize the FindObject (00000030(CKR_DEVICE_ERROR))\n"
     "TRC 5) Try to logout the token \nTRC Success to logout the token\n"
     "TRC 6) Try to close the session (PTR)\nTRC Success to close session\n"
     "TRC 7) Try to finalize\nTRC LEAVE\n",
     loggingOut},
    {agreement, "C_DeriveKey", 1, "TRC 4) Try to derive the secret key using peer's public key..\n",
     "ERR C_DeriveKey(): Failed with error-code:(00000030(CKR_DEVICE_ERROR))\n"
     "TRC 5) Try to logout the token \nTRC Success to logout the token\n"
     "TRC 6) Try to close the session (PTR)\nTRC Success to close session\n"
     "TRC 7) Try to finalize\nTRC LEAVE\n",
     loggingOut},
    {agreement, "C_GetAttributeValue", 1,
     "DBG C_DeriveKey(): successful to get the agreed shared-secret handle, handle=[PTR]\n",
     "ERR C_GetAttributeValue() failed while getting attributeValue length with "
     "error-code:(00000030(CKR_DEVICE_ERROR))\n"
     "TRC 5) Try to logout the token \nTRC Success to logout the token\n"
     "TRC 6) Try to close the session (PTR)\nTRC Success to close session\n"
     "TRC 7) Try to finalize\nTRC LEAVE\n",
     loggingOut},
    {agreement, "C_GetAttributeValue", 2,
     "DBG C_DeriveKey(): successful to get the agreed shared-secret handle, handle=[PTR]\n",
     "ERR C_GetAttributeValue() failed with error-code:(00000030(CKR_DEVICE_ERROR))\n"
     "TRC 5) Try to logout the token \nTRC Success to logout the token\n"
     "TRC 6) Try to close the session (PTR)\nTRC Success to close session\n"
     "TRC 7) Try to finalize\nTRC LEAVE\n",
     loggingOut},
    {agreement, "C_Logout", 1, "TRC 5) Try to logout the token \n",
     "ERR Failed to logout the token (00000030(CKR_DEVICE_ERROR))\n"
     "TRC 6) Try to close the session (PTR)\nTRC Success to close session\n"
     "TRC 7) Try to finalize\nTRC LEAVE\n",
     closing},
    {agreement, "C_CloseSession", 1, "TRC 6) Try to close the session (PTR)\n",
     "ERR Failed to close session (00000030(CKR_DEVICE_ERROR))\nTRC 7) Try to finalize\nTRC LEAVE\n",
     "C_Finalize\n"},
    {agreement, "C_Finalize", 1, "TRC 7) Try to finalize\n",
     "ERR Failed C_Finalize (00000030(CKR_DEVICE_ERROR))\nTRC LEAVE\n", ""},

    {digest, "C_Initialize", 1, "TRC 0) Try to initialize\n",
     "ERR Failed C_Initialize (00000030(CKR_DEVICE_ERROR))\nTRC LEAVE\n", ""},
    {digest, "C_OpenSession", 1, "TRC 1) Try to open a new session\n",
     "ERR Failed to open session (00000030(CKR_DEVICE_ERROR))\nTRC 6) Try to finalize\nTRC LEAVE\n",
     "C_Finalize\n"},
    {digest, "C_DigestInit", 1, "TRC 4) Trying to derive the key using [HASH] based KDF..\n",
     "ERR Failed to initialize Digest Process (00000030(CKR_DEVICE_ERROR))\n"
     "TRC 5) Try to close the session (PTR)\nTRC Success to close session\n"
     "TRC 6) Try to finalize\nTRC LEAVE\n",
     closing},
    {digest, "C_Digest", 1, "TRC Success to initialize Digest process\n",
     "ERR Failed to Digest data, error-code:(00000030(CKR_DEVICE_ERROR))\n"
     "TRC 5) Try to close the session (PTR)\nTRC Success to close session\n"
     "TRC 6) Try to finalize\nTRC LEAVE\n",
     closing},
    {digest, "C_CloseSession", 1, "TRC 5) Try to close the session (PTR)\n",
     "ERR Failed to close session (00000030(CKR_DEVICE_ERROR))\nTRC 6) Try to finalize\nTRC LEAVE\n",
     "C_Finalize\n"},
    {digest, "C_Finalize", 1, "TRC 6) Try to finalize\n",
     "ERR Failed C_Finalize (00000030(CKR_DEVICE_ERROR))\nTRC LEAVE\n", ""},

    {hmac, "C_Initialize", 1, "TRC 0) Try to initialize\n",
     "ERR Failed C_Initialize (00000030(CKR_DEVICE_ERROR))\nTRC LEAVE\n", ""},
    {hmac, "C_OpenSession", 1, "TRC 1) Try to open a new session\n",
     "ERR Failed to open session (00000030(CKR_DEVICE_ERROR))\nTRC 6) Try to finalize\nTRC LEAVE\n",
     "C_Finalize\n"},
    {hmac, "C_CreateObject", 1, "TRC 2) Try to create HMAC secret key session object\n",
     "ERR C_CreateObject() failed while creating Hmac secret key object, "
     "error-code=(00000030(CKR_DEVICE_ERROR))\n"
     "TRC 5) Try to close the session (PTR)\nTRC Success to close session\n"
     "TRC 6) Try to finalize\nTRC LEAVE\n",
     closing},
    {hmac, "C_SignInit", 1, "TRC 4) Trying to derive the key using [HMAC] based KDF..\n",
     "ERR Failed to initialize HMAC Process (00000030(CKR_DEVICE_ERROR))\n"
     "TRC 5) Try to close the session (PTR)\nTRC Success to close session\n"
     "TRC 6) Try to finalize\nTRC LEAVE\n",
     closing},
    {hmac, "C_Sign", 1, "TRC Success to initialize HMAC process\n",
     "ERR Failed to HMAC data, error-code:(00000030(CKR_DEVICE_ERROR))\n"
     "TRC 5) Try to close the session (PTR)\nTRC Success to close session\n"
     "TRC 6) Try to finalize\nTRC LEAVE\n",
     closing},
    {hmac, "C_CloseSession", 1, "TRC 5) Try to close the session (PTR)\n",
     "ERR Failed to close session (00000030(CKR_DEVICE_ERROR))\nTRC 6) Try to finalize\nTRC LEAVE\n",
     "C_Finalize\n"},
    {hmac, "C_Finalize", 1, "TRC 6) Try to finalize\n",
     "ERR Failed C_Finalize (00000030(CKR_DEVICE_ERROR))\nTRC LEAVE\n", ""},
};

std::string wholeSequence(Sequence sequence)
{
    switch (sequence) {
    case agreement:
        return "C_Initialize\nC_OpenSession\nC_Login\nC_FindObjectsInit\nC_FindObjects\n"
               "C_FindObjectsFinal\nC_DeriveKey\nC_GetAttributeValue\nC_GetAttributeValue\n"
               "C_Logout\nC_CloseSession\nC_Finalize\n";
    case digest:
        return "C_Initialize\nC_OpenSession\nC_DigestInit\nC_Digest\nC_CloseSession\nC_Finalize\n";
    default:
        return "C_Initialize\nC_OpenSession\nC_CreateObject\nC_SignInit\nC_Sign\nC_CloseSession\n"
               "C_Finalize\n";
    }
}

// Up to the nth occurrence of the line, that one included.
std::string upTo(const std::string& text, const std::string& line, uint32_t nth = 1)
{
    size_t end = 0;
    for (uint32_t i = 0; i < nth; ++i) {
        const size_t begin = text.find(line, end);
        EXPECT_NE(std::string::npos, begin) << "no line " << line;
        if (begin == std::string::npos)
            return {};
        end = begin + line.size();
    }
    return text.substr(0, end);
}

class SecretFaultTest : public SecretTest {
protected:
    struct Outcome {
        SECURITY_STATUS status;
        bool handedOut;  // a secret
        DWORD length;
        Bytes output;
    };

    Outcome run(Sequence sequence)
    {
        if (sequence == agreement) {
            const Agreement result = agree();
            return {result.status, result.handleWritten, 0, {}};
        }
        DerivationRun what{.hash = L"SHA1", .prepend = {0x01}, .append = {0xF1, 0xF2}};
        what.hmac = sequence == hmac;
        if (what.hmac)
            what.hmacKey = {0xA1, 0xA2};
        const Derived result = derive(what);
        return {result.status, false, result.length, result.output};
    }

    std::string lines(Sequence sequence)
    {
        return sequence == agreement ? agreementLines() : derivationLines();
    }

    static Bytes result(Sequence sequence)
    {
        const Bytes input = {0x01, 0x51, 0x52, 0x53, 0xF1, 0xF2};
        return sequence == hmac ? hmacOf(CKM_SHA_1_HMAC, Bytes{0xA1, 0xA2}, input)
                                : digestOf(CKM_SHA_1, input);
    }

    static std::string success(Sequence sequence)
    {
        if (sequence == agreement)
            return agreementSuccess;
        std::string text = sequence == digest ? digestSuccess : hmacSuccess;
        return text.replace(text.find("RESULT"), 6, hexEncode(result(sequence)));
    }
};

class SecretFaultRowTest : public SecretFaultTest, public testing::WithParamInterface<FaultRow> {};

}  // namespace

TEST_F(SecretFaultTest, linesOfSuccess)
{
    for (const Sequence sequence : {agreement, digest, hmac}) {
        EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, run(sequence).status);
        EXPECT_EQ(success(sequence), lines(sequence));
    }
}

TEST_F(SecretFaultTest, linesOfALengthQuery)
{
    derive({.hash = L"SHA1", .prepend = {0x01}, .append = {0xF1, 0xF2}, .query = true});
    std::string expected = digestSuccess;
    expected.replace(expected.find("pbDerivedKey=PTR"), 16, "pbDerivedKey=NULL");
    expected.erase(expected.find("DBG Derived Key"),
                   std::string("DBG Derived Key(20 bytes): [RESULT]\n").size());
    EXPECT_EQ(expected, derivationLines());
}

TEST_F(SecretFaultTest, linesWithoutASuitableKey)
{
    token.clearObjects();
    const Agreement result = agree();
    EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR}, result.status);
    EXPECT_FALSE(result.handleWritten);
    EXPECT_EQ(upTo(agreementSuccess, "TRC Success to initialize FindObject of the token\n") +
                  "DBG Success to Found 0 Object (must be 1)\n"
                  "ERR There is no suitable private key object\n"
                  "TRC 5) Try to logout the token \nTRC Success to logout the token\n"
                  "TRC 6) Try to close the session (PTR)\nTRC Success to close session\n"
                  "TRC 7) Try to finalize\nTRC LEAVE\n",
              agreementLines());
    EXPECT_TRUE(token.calls("C_FindObjectsFinal").empty());
}

TEST_P(SecretFaultRowTest, linesCallsAndStatus)
{
    const FaultRow& row = GetParam();
    token.fail(row.failing, CKR_DEVICE_ERROR, row.nth);
    const Outcome outcome = run(row.sequence);
    EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR}, outcome.status);
    EXPECT_FALSE(outcome.handedOut);
    EXPECT_EQ(upTo(wholeSequence(row.sequence), row.failing + std::string("\n"), row.nth) +
                  row.cleanUp,
              joined(token.callNames()));
    EXPECT_EQ(upTo(success(row.sequence), row.lastCommon) + row.rest, lines(row.sequence));
}

// A failing clean-up after good work leaves the output; nothing else is ever touched.
TEST_P(SecretFaultRowTest, outputIsUntouchedUnlessTheWorkWasDone)
{
    const FaultRow& row = GetParam();
    if (row.sequence == agreement)
        return;
    token.fail(row.failing, CKR_DEVICE_ERROR, row.nth);
    const Outcome outcome = run(row.sequence);
    const bool done = std::string_view(row.failing) == "C_CloseSession" ||
                      std::string_view(row.failing) == "C_Finalize";
    Bytes expected(outcome.output.size(), untouchedByte);
    if (done)
        std::ranges::copy(result(row.sequence), expected.begin());
    EXPECT_EQ(hexEncode(expected), hexEncode(outcome.output));
    EXPECT_EQ(done ? 20 : untouchedLength, outcome.length);
}

TEST_P(SecretFaultRowTest, anExceptionOfTheLibraryIsAFailureLikeAnyOther)
{
    const FaultRow& row = GetParam();
    token.throwFrom(row.failing, row.nth);
    EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR}, run(row.sequence).status);
    std::string rest = row.rest;
    const std::string fault = "00000030(CKR_DEVICE_ERROR)";
    rest.replace(rest.find(fault), fault.size(), "00000006(CKR_FUNCTION_FAILED)");
    EXPECT_EQ(upTo(success(row.sequence), row.lastCommon) + rest, lines(row.sequence));
}

TEST_P(SecretFaultRowTest, theNextRunSucceeds)
{
    const FaultRow& row = GetParam();
    token.fail(row.failing, CKR_DEVICE_ERROR, row.nth);
    run(row.sequence);
    if (token.initialised()) {
        // The failing call was the one that ends the library's use.
        CK_FUNCTION_LIST exports = token.exports();
        EXPECT_EQ(CKR_OK, exports.C_Finalize(nullptr));
    }
    log.takeLines();
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, run(row.sequence).status);
    EXPECT_EQ(success(row.sequence), lines(row.sequence));
}

INSTANTIATE_TEST_SUITE_P(Calls, SecretFaultRowTest, testing::ValuesIn(rows), [](const auto& row) {
    std::string name = nameOf(row.param.sequence) + std::string(row.param.failing) +
                       (row.param.nth > 1 ? "Again" : "");
    std::erase(name, '_');
    return name;
});

// The table has a row for each call of each sequence, in order.
TEST(SecretFaultTable, isComplete)
{
    for (const Sequence sequence : {agreement, digest, hmac}) {
        std::string named;
        for (const FaultRow& row : rows) {
            if (row.sequence == sequence)
                named += row.failing + std::string("\n");
        }
        EXPECT_EQ(wholeSequence(sequence), named);
    }
}

// Several clean-up steps fail: each says so, and all of them run.
TEST_F(SecretFaultTest, everyFailingCleanUpStepSaysSo)
{
    for (const char* function : {"C_Digest", "C_CloseSession", "C_Finalize"})
        token.fail(function, CKR_DEVICE_ERROR);
    EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR}, run(digest).status);
    EXPECT_EQ(upTo(success(digest), "TRC Success to initialize Digest process\n") +
                  "ERR Failed to Digest data, error-code:(00000030(CKR_DEVICE_ERROR))\n"
                  "TRC 5) Try to close the session (PTR)\n"
                  "ERR Failed to close session (00000030(CKR_DEVICE_ERROR))\n"
                  "TRC 6) Try to finalize\n"
                  "ERR Failed C_Finalize (00000030(CKR_DEVICE_ERROR))\nTRC LEAVE\n",
              derivationLines());
}

}  // namespace NV::test
