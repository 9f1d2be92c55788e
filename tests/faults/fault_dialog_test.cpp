// A sample of the fault matrix through the module's table, with the PIN typed into the dialog: what
// an application meets when signing, decrypting and agreeing.

#include <gtest/gtest.h>

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

class FaultDialogTest : public ServedKeysTest, public testing::WithParamInterface<TokenOperation> {
protected:
    FaultDialogTest() : ServedKeysTest(false), cipherText_(encryptPkcs1(hash))
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
        token.clearCalls();
    }

    static const OperationRow& row() { return rowOf(GetParam()); }

    Result run()
    {
        Result result(row().room);
        BYTE* output = result.output.data();
        // The test fails when no dialog comes: every fault strikes after the PIN.
        const DialogDriver dialog(DialogDriver::entering(rightPin));
        switch (GetParam()) {
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
        return GetParam() == TokenOperation::rsaSign ? signatureOf(CKM_RSA_PKCS, hash, 256) : hash;
    }

    // The key's own length, whatever length the token claims.
    std::optional<DWORD> lengthOf(const ExpectedOutcome& expected) const
    {
        const bool hasSigned =
            GetParam() == TokenOperation::rsaSign && expected.status == ERROR_SUCCESS;
        return hasSigned ? 256 : expected.length;
    }

    void expectResult(const ExpectedOutcome& expected, const Result& result)
    {
        EXPECT_EQ(expected.status, result.status);
        EXPECT_TRUE(result.output.holdsExactly(expected.output ? trueOutput() : Bytes{}));
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
        const ExpectedOutcome expected = expectedOutcome(Behaviour::classic, row(), good, fault);
        expectResult(expected, run());
        EXPECT_EQ(expected.calls, namesOf(sequenceOf(token.calls())));
        EXPECT_EQ(0U, token.openSessions());
        EXPECT_EQ(expected.sessionsFinalized, token.sessionsFinalized());
        EXPECT_EQ(expected.initialised, token.initialised());

        token.clearFaults();
        list = whole;
        expectGood(run());
        EXPECT_EQ(0U, token.openSessions());
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
    EXPECT_EQ(row().calls, namesOf(good));
    const std::vector<FaultCase> cases = casesOf(good);
    EXPECT_LT(8 * sampleStep, cases.size());
    for (size_t i = 0; i < cases.size(); i += sampleStep) {
        SCOPED_TRACE(std::string(row().name) + ", " + cases[i].name());
        strike(good, cases[i]);
    }
}

INSTANTIATE_TEST_SUITE_P(Operations, FaultDialogTest,
                         testing::Values(TokenOperation::rsaSign, TokenOperation::rsaDecrypt,
                                         TokenOperation::agreement),
                         [](const auto& operation) { return rowOf(operation.param).name; });

}  // namespace NV::test
