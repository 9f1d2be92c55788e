// What each of the six token operations logs when one of its PKCS#11 calls fails or throws. The status,
// the calls that follow and what the caller finds are the fault matrix's concern (tests/faults).

#include "failing_call.h"
#include "key_fixture.h"

namespace NV::test {

namespace {

using enum Operation;

// The calls of the operations' own work.
const ErrorTexts errorTexts = withCommonErrors({
    {"C_SignInit", "Failed to initialize Sign Process "},
    {"C_Sign", "Failed to sign Process "},
    {"C_VerifyInit", "Failed to initialize verify process "},
    {"C_Verify", "Failed to verify Process "},
    {"C_EncryptInit", "Failed to initialize encrypt, C_EncryptInit() returned "},
    {"C_Encrypt", "Failed to encrypt data, C_Encrypt() returned "},
    {"C_DecryptInit", "Failed to initialize decrypt, C_DecryptInit() returned "},
    {"C_Decrypt", "Failed to decrypt data, C_Decrypt() returned "},
});

class FaultTest : public KeyTest, public testing::WithParamInterface<Operation> {
protected:
    FaultTest()
    {
        if (GetParam() == rsaVerify)
            what.signature = signatureOf(CKM_RSA_PKCS, what.input, 256);
        if (GetParam() == ecVerify)
            what.signature = signatureOf(CKM_ECDSA, what.input, 64);
        if (GetParam() == rsaDecrypt)
            what.input = run({.operation = rsaEncrypt, .flags = 0x2}).output;
        forget();
        EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, run(what).status);
        good = log.takeLines();
    }

    // The fault is set. `inner`: what the call layer logs of it; `result`: what the operation does.
    void expectFailure(size_t index, const LoggedCall& call, const std::string& inner,
                       const std::string& result)
    {
        SCOPED_TRACE(call.label() + ": " + result);
        token.clearCalls();
        EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR}, run(what).status);
        const std::string error = errorTexts.at(call.label()) + "(" + result + ")";
        const LogLines all = log.takeLines();
        const std::string operation = functionOf(GetParam());
        EXPECT_EQ(linesWithFailure(good, operation, index, error, token.callNames()),
                  masked(render(ofFunction(all, operation))));
        EXPECT_EQ(inner + error + "\n", messages(all, "ERR"));
        token.clearFaults();
        // Where C_Finalize itself failed.
        if (token.initialised())
            token.exports().C_Finalize(nullptr);
    }

    Run what{.operation = GetParam(), .flags = 0x2};
    LogLines good;
};

}  // namespace

TEST_P(FaultTest, aFailingCallIsOneErrorBetweenTheStepsThatRun)
{
    const std::vector<LoggedCall> calls = loggedCalls(good);
    ASSERT_LE(9U, calls.size());
    for (size_t i = 0; i < calls.size(); ++i) {
        token.fail(calls[i].name, CKR_DEVICE_ERROR, calls[i].nth);
        expectFailure(i, calls[i], "", "00000030(CKR_DEVICE_ERROR)");
        token.throwFrom(calls[i].name, calls[i].nth);
        expectFailure(i, calls[i], "Caught Exception\n", "00000006(CKR_FUNCTION_FAILED)");
    }
}

INSTANTIATE_TEST_SUITE_P(Operations, FaultTest,
                         testing::Values(rsaSign, rsaVerify, rsaEncrypt, rsaDecrypt, ecSign,
                                         ecVerify),
                         [](const auto& row) {
                             std::string name = functionOf(row.param);
                             name = name.substr(name.find("P11") + 3);
                             return name.substr(0, name.find("KeyObject")) +
                                    name.substr(name.rfind(':') + 1);
                         });

}  // namespace NV::test
