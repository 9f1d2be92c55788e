// What agreement and derivation log: in a good run, and when one of their PKCS#11 calls fails or throws.
// The status, the calls that follow and what the caller finds are the fault matrix's concern
// (tests/faults).

#include "failing_call.h"
#include "secret_fixture.h"
#include "trace_file.h"

namespace NV::test {

namespace {

enum class Sequence { agreement, digest, hmac };

using enum Sequence;

class SecretFaultTest : public SecretTest {
protected:
    SECURITY_STATUS run(Sequence sequence)
    {
        token.clearCalls();
        if (sequence == agreement)
            return agree().status;
        return derive(derivation(sequence)).status;
    }

    static DerivationRun derivation(Sequence sequence)
    {
        DerivationRun what{.hash = L"SHA1", .prepend = {0x01}, .append = {0xF1, 0xF2}};
        what.hmac = sequence == hmac;
        if (what.hmac)
            what.hmacKey = {0xA1, 0xA2};
        return what;
    }

    // What a derivation of that kind gives, as its trace shows it.
    static TraceValues derivedKey(Sequence sequence)
    {
        const Bytes input = {0x01, 0x51, 0x52, 0x53, 0xF1, 0xF2};
        return {
            {"KEY", hexEncode(sequence == hmac ? hmacOf(CKM_SHA_1_HMAC, Bytes{0xA1, 0xA2}, input)
                                               : digestOf(CKM_SHA_1, input))}};
    }
};

struct FaultRow {
    const char* name;
    Sequence sequence;
    std::string_view function;
    ErrorTexts errors;
};

const FaultRow rows[] = {
    {"agreement",
     agreement,
     agreementFunction,
     {{"C_DeriveKey", "C_DeriveKey(): Failed with error-code:"},
      {"C_GetAttributeValue",
       "C_GetAttributeValue() failed while getting attributeValue length with error-code:"},
      {"C_GetAttributeValue 2", "C_GetAttributeValue() failed with error-code:"}}},
    {"digest",
     digest,
     derivationFunction,
     {{"C_DigestInit", "Failed to initialize Digest Process "},
      {"C_Digest", "Failed to Digest data, error-code:"}}},
    {"hmac",
     hmac,
     derivationFunction,
     {{"C_CreateObject",
       "C_CreateObject() failed while creating Hmac secret key object, error-code="},
      {"C_SignInit", "Failed to initialize HMAC Process "},
      {"C_Sign", "Failed to HMAC data, error-code:"}}},
};

class SecretFaultRowTest : public SecretFaultTest, public testing::WithParamInterface<FaultRow> {
protected:
    // The fault is set. `inner`: what the call layer logs of it; `result`: what the operation does.
    void expectFailure(const LogLines& good, size_t index, const std::string& inner,
                       const std::string& error)
    {
        SCOPED_TRACE(error);
        EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR}, run(GetParam().sequence));
        const LogLines all = log.takeLines();
        const std::string operation(GetParam().function);
        EXPECT_EQ(linesWithFailure(good, operation, index, error, token.callNames()),
                  masked(render(ofFunction(all, operation))));
        EXPECT_EQ(inner + "ERR " + error + "\n", spoken(ofLevel(all, "ERR")));
        token.clearFaults();
        // Where C_Finalize itself failed.
        if (token.initialised())
            token.exports().C_Finalize(nullptr);
    }
};

}  // namespace

TEST_F(SecretFaultTest, linesOfSuccess)
{
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, run(agreement));
    expectTrace(log.takeLines(), "keys/agreement");
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, run(digest));
    expectTrace(log.takeLines(), "keys/derive_digest", derivedKey(digest));
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, run(hmac));
    expectTrace(log.takeLines(), "keys/derive_hmac", derivedKey(hmac));
}

TEST_F(SecretFaultTest, linesOfALengthQuery)
{
    DerivationRun what = derivation(digest);
    what.query = true;
    derive(what);
    expectTrace(log.takeLines(), "keys/derive_length");
}

TEST_F(SecretFaultTest, linesWithoutASuitableKey)
{
    token.clearObjects();
    const Agreement result = agree();
    EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR}, result.status);
    EXPECT_FALSE(result.handleWritten);
    expectTrace(log.takeLines(), "keys/agreement_missing_key");
    EXPECT_TRUE(token.calls("C_FindObjectsFinal").empty());
}

TEST_P(SecretFaultRowTest, aFailingCallIsOneErrorBetweenTheStepsThatRun)
{
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, run(GetParam().sequence));
    const LogLines good = log.takeLines();
    const ErrorTexts errors = withCommonErrors(GetParam().errors);
    const std::vector<LoggedCall> calls = loggedCalls(good);
    ASSERT_LE(6U, calls.size());
    for (size_t i = 0; i < calls.size(); ++i) {
        const std::string error = errors.at(calls[i].label());
        token.fail(calls[i].name, CKR_DEVICE_ERROR, calls[i].nth);
        expectFailure(good, i, "", error + "(00000030(CKR_DEVICE_ERROR))");
        token.throwFrom(calls[i].name, calls[i].nth);
        expectFailure(good, i, "ERR Caught Exception\n", error + "(00000006(CKR_FUNCTION_FAILED))");
    }
}

INSTANTIATE_TEST_SUITE_P(Operations, SecretFaultRowTest, testing::ValuesIn(rows),
                         [](const auto& row) { return std::string(row.param.name); });

// Several clean-up steps fail: each says so, and all of them run.
TEST_F(SecretFaultTest, everyFailingCleanUpStepSaysSo)
{
    for (const char* function : {"C_Digest", "C_CloseSession", "C_Finalize"})
        token.fail(function, CKR_DEVICE_ERROR);
    EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR}, run(digest));
    EXPECT_TRUE(derivationLines().ends_with(
        "TRC Success to initialize Digest process\n"
        "ERR Failed to Digest data, error-code:(00000030(CKR_DEVICE_ERROR))\n"
        "TRC 5) Try to close the session (PTR)\n"
        "ERR Failed to close session (00000030(CKR_DEVICE_ERROR))\n"
        "TRC 6) Try to finalize\n"
        "ERR Failed C_Finalize (00000030(CKR_DEVICE_ERROR))\nTRC LEAVE\n"));
}

}  // namespace NV::test
