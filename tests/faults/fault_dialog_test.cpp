// A sample of the fault matrix through the module's table, with the PIN typed into the dialog: what
// an application meets when signing, decrypting and agreeing.

#include <gtest/gtest.h>

#include <span>
#include <tuple>

#include "dialog_driver.h"
#include "guarded_output.h"
#include "module_fixture.h"
#include "operation_oracle.h"
#include "peer_key.h"

namespace NV::test {

namespace {

const std::wstring rightPin(kPin.begin(), kPin.end());
constexpr DWORD untouchedLength = 0x7391;
constexpr NCRYPT_SECRET_HANDLE untouchedSecret = 0x7391;

// Of all cases of an operation, every so many.
constexpr size_t sampleStep = 7;

const OperationRow& rowOf(TokenOperation operation)
{
    return *std::ranges::find(operationRows, operation, &OperationRow::operation);
}

struct Result {
    explicit Result(size_t room) : output(room) {}

    SECURITY_STATUS status = 0;
    GuardedOutput output;
    DWORD length = untouchedLength;
    NCRYPT_SECRET_HANDLE secret = untouchedSecret;
};

// In which behaviour, and which operation.
using Case = std::tuple<Behaviour, TokenOperation>;

class FaultDialogTest : public ServedKeysTest, public testing::WithParamInterface<Case> {
protected:
    FaultDialogTest()
        : ServedKeysTest(false, std::get<Behaviour>(GetParam())), cipherText_(encryptPkcs1(hash))
    {
        Bytes blob = peerBlob(ecdhP256, 32);
        EXPECT_EQ(status(ERROR_SUCCESS),
                  table()->ImportKey(handle(), 0, BCRYPT_ECCPUBLIC_BLOB, nullptr, &peer_,
                                     blob.data(), static_cast<DWORD>(blob.size()), 0));
        prepareToken();
    }

    // The two keys, with no fault set and no call recorded, behind the list that the module holds.
    void prepareToken()
    {
        token.reset();
        token.addRsaKeyPair({0x01, 0xAB}, 2048);
        token.addEcKeyPair({0x02, 0x56}, 32);
        remadeFunctionList(token);
        if (behaviour() == Behaviour::modern)
            token.exports().C_Initialize(nullptr);
        token.clearCalls();
    }

    static Behaviour behaviour() { return std::get<Behaviour>(GetParam()); }
    static const OperationRow& row() { return rowOf(std::get<TokenOperation>(GetParam())); }

    Result run()
    {
        Result result(row().room);
        BYTE* output = result.output.data();
        // The test fails when no dialog comes: every fault strikes after the PIN.
        const DialogDriver dialog(DialogDriver::entering(rightPin));
        switch (row().operation) {
        case TokenOperation::rsaSign:
            result.status = table()->SignHash(handle(), rsa, nullptr, hash.data(), 32, output,
                                              row().room, &result.length, 0);
            break;
        case TokenOperation::rsaDecrypt:
            result.status = table()->Decrypt(handle(), rsa, cipherText_.data(), 256, nullptr,
                                             output, row().room, &result.length, BCRYPT_PAD_PKCS1);
            break;
        default:
            result.status = table()->SecretAgreement(handle(), ec, peer_, &result.secret, 0);
        }
        return result;
    }

    Bytes trueOutput() const
    {
        return row().operation == TokenOperation::rsaSign ? signatureOf(CKM_RSA_PKCS, hash, 256)
                                                          : hash;
    }

    // The key's own length, whatever length the token claims.
    std::optional<DWORD> lengthOf(const ExpectedOutcome& expected) const
    {
        const bool hasSigned =
            row().operation == TokenOperation::rsaSign && expected.status == ERROR_SUCCESS;
        return hasSigned ? 256 : expected.length;
    }

    void expectResult(const ExpectedOutcome& expected, const Result& result)
    {
        EXPECT_EQ(expected.status, result.status);
        Bytes written = expected.output ? trueOutput() : Bytes{};
        written.resize(written.size() + expected.zeros);
        EXPECT_TRUE(result.output.holdsExactly(written));
        EXPECT_EQ(lengthOf(expected).value_or(untouchedLength), result.length);
        EXPECT_EQ(expected.secret, result.secret != untouchedSecret);
        if (expected.secret) {
            EXPECT_EQ(status(ERROR_SUCCESS), table()->FreeSecret(handle(), result.secret));
        }
    }

    void strike(const Sequence& good, const FaultCase& fault)
    {
        prepareToken();
        CK_FUNCTION_LIST& list = remadeFunctionList(token);
        const CK_FUNCTION_LIST whole = list;
        arm(token, fault);
        remadeFunctionList(token);
        token.clearCalls();
        const ExpectedOutcome expected = expectedOutcome(behaviour(), row(), good, fault);
        expectResult(expected, run());
        EXPECT_EQ(expected.calls, namesOf(sequenceOf(token.calls())));
        EXPECT_EQ(expected.sessionsLeft, token.openSessions());
        EXPECT_EQ(expected.sessionsFinalized, token.sessionsFinalized());
        EXPECT_EQ(expected.initialised, token.initialised());

        token.clearFaults();
        list = whole;
        expectGood(run());
        EXPECT_EQ(expected.sessionsLeft, token.openSessions());
    }

    void expectGood(const Result& result)
    {
        ExpectedOutcome expected{};
        expected.output = row().output != nullptr;
        if (row().told != Told::never)
            expected.length = row().length;
        expected.secret = row().operation == TokenOperation::agreement;
        expectResult(expected, result);
    }

private:
    Bytes cipherText_;
    NCRYPT_KEY_HANDLE peer_ = 0;
};

}  // namespace

TEST_P(FaultDialogTest, aSampleOfTheFaults)
{
    expectGood(run());
    const Sequence good = sequenceOf(token.calls());
    EXPECT_EQ(callsOf(row(), behaviour()), namesOf(good));
    const std::vector<FaultCase> cases = casesOf(
        good, behaviour() == Behaviour::modern ? std::span(moreResults) : std::span<const CK_RV>());
    EXPECT_LT(8 * sampleStep, cases.size());
    // Modern has more cases of the same kind.
    const size_t step = behaviour() == Behaviour::modern ? 2 * sampleStep : sampleStep;
    for (size_t i = 0; i < cases.size(); i += step) {
        SCOPED_TRACE(std::string(row().name) + ", " + cases[i].name());
        strike(good, cases[i]);
    }
}

const auto nameOfCase = [](const auto& tested) {
    return rowOf(std::get<TokenOperation>(tested.param)).name;
};
const auto operations =
    testing::Values(TokenOperation::rsaSign, TokenOperation::rsaDecrypt, TokenOperation::agreement);

INSTANTIATE_TEST_SUITE_P(Operations, FaultDialogTest,
                         testing::Combine(testing::Values(Behaviour::classic), operations),
                         nameOfCase);
INSTANTIATE_TEST_SUITE_P(Modern, FaultDialogTest,
                         testing::Combine(testing::Values(Behaviour::modern), operations),
                         nameOfCase);

}  // namespace NV::test
