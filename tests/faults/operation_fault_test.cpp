// The fault matrix of the token operations: every call of signing, verifying, encrypting,
// decrypting, agreeing and deriving, with every fault that it can show.

#include <gtest/gtest.h>

#include <span>
#include <tuple>

#include "case_count.h"
#include "keystore/keystore_ec.h"
#include "log_off.h"
#include "p11/p11.h"
#include "token_operations.h"

namespace NV::test {

namespace {

// In which behaviour, and which operation.
using Case = std::tuple<Behaviour, OperationRow>;

class OperationFaultTest : public testing::TestWithParam<Case> {
protected:
    OperationFaultTest()
    {
        // What the first run and the first exception of a thread allocate once is no leak.
        operations.reset();
        operations.token.throwFrom("C_OpenSession", 1);
        operations.run(row());
        operations.token.fail("C_OpenSession", CKR_CRYPTOKI_NOT_INITIALIZED, 1);
        operations.run(row());
        run();
        EXPECT_EQ(callsOf(row(), behaviour()), names());
        good = sequenceOf(operations.token.calls());
    }

    static Behaviour behaviour() { return std::get<Behaviour>(GetParam()); }
    static const OperationRow& row() { return std::get<OperationRow>(GetParam()); }

    // On a token that starts afresh.
    Attempt run()
    {
        operations.reset();
        return operations.run(row());
    }
    std::string names() const { return namesOf(sequenceOf(operations.token.calls())); }

    void expectGood(const Attempt& attempt) const
    {
        EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, attempt.status);
        const Bytes output = operations.output(row().operation);
        EXPECT_TRUE(attempt.output.holdsExactly(row().output != nullptr ? output : Bytes{}));
        EXPECT_EQ(row().told != Told::never ? row().length : untouchedLength, attempt.length);
        const bool agreed = row().operation == TokenOperation::agreement;
        EXPECT_EQ(agreed ? output : Bytes{}, attempt.secret);
    }

    // The token after a run that met the fault.
    void expectNothingOpen(const ExpectedOutcome& expected) const
    {
        EXPECT_EQ(expected.sessionsLeft, operations.token.openSessions());
        EXPECT_FALSE(operations.token.userLoggedIn());
        EXPECT_EQ(expected.sessionsFinalized, operations.token.sessionsFinalized());
        EXPECT_EQ(0U, operations.token.loginsFinalized());
        EXPECT_EQ(expected.initialised, operations.token.initialised());
    }

    void expectOutcome(const ExpectedOutcome& expected, const Attempt& attempt) const
    {
        EXPECT_EQ(expected.status, attempt.status);
        EXPECT_EQ(expected.calls, names());
        const Bytes output = operations.output(row().operation);
        Bytes written = expected.output ? output : Bytes{};
        written.resize(written.size() + expected.zeros);
        if (expected.byCertificate)
            written = cipherTextOf(attempt);
        EXPECT_TRUE(attempt.output.holdsExactly(written));
        EXPECT_EQ(expected.length.value_or(untouchedLength), attempt.length);
        EXPECT_EQ(expected.secret, attempt.handle != untouchedHandle);
        EXPECT_EQ(expected.secret ? output : Bytes{}, attempt.secret);
        EXPECT_EQ(0, attempt.heapLeft);
        EXPECT_TRUE(attempt.inputKept);
    }

    // By the certificate's key: another one each time.
    static Bytes cipherTextOf(Attempt attempt)
    {
        Bytes written(attempt.output.data(), attempt.output.data() + row().length);
        EXPECT_NE(Bytes(row().length, GuardedOutput::untouched), written);
        return written;
    }

    void strike(const FaultCase& fault)
    {
        operations.reset();
        const CK_FUNCTION_LIST whole = operations.list();
        arm(operations.token, fault);
        remadeFunctionList(operations.token);
        operations.token.clearCalls();
        const Attempt attempt = operations.run(row());
        const ExpectedOutcome expected = expectedOutcome(behaviour(), row(), good, fault);
        expectOutcome(expected, attempt);
        expectNothingOpen(expected);

        // The token stays as the fault has left it, and the next operation succeeds.
        operations.token.clearFaults();
        operations.list() = whole;
        expectGood(operations.run(row()));
        EXPECT_EQ(expected.sessionsLeft, operations.token.openSessions());
        countCase();
    }

    LogOff logOff;
    TokenOperations operations{behaviour()};
    Sequence good;
};

// How an operation begins the library.
class InitializingFaultTest : public OperationFaultTest {};

}  // namespace

TEST_P(OperationFaultTest, aGoodRunSucceedsAndLeavesNothing)
{
    const Attempt attempt = run();
    expectGood(attempt);
    EXPECT_EQ(0, attempt.heapLeft);
    EXPECT_EQ(0U, operations.token.sessionsFinalized());
    EXPECT_EQ(behaviour() == Behaviour::modern, operations.token.initialised());
}

TEST_P(OperationFaultTest, everyFaultOfEveryCall)
{
    const std::vector<FaultCase> cases = casesOf(
        good, behaviour() == Behaviour::modern ? std::span(moreResults) : std::span<const CK_RV>());
    // Nine codes and an exception for each call, and for each function an entry that is missing.
    EXPECT_LE(10 * good.size() + 4, cases.size());
    for (const FaultCase& fault : cases) {
        SCOPED_TRACE(std::string(row().name) + ", " + fault.name());
        strike(fault);
    }
}

// It then fails at the next call; a session that was never opened is not closed, and a library that
// somebody else has is not finalised.
TEST_P(InitializingFaultTest, aLibraryThatOnlySaysThatItIsInitialized)
{
    operations.reset();
    operations.token.fail("C_Initialize", CKR_CRYPTOKI_ALREADY_INITIALIZED, 1);
    const Attempt attempt = operations.run(row());
    EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR}, attempt.status);
    EXPECT_EQ("C_Initialize C_OpenSession", names());
    EXPECT_TRUE(attempt.output.holdsExactly({}));
    EXPECT_EQ(untouchedLength, attempt.length);
    EXPECT_EQ(untouchedHandle, attempt.handle);
    EXPECT_EQ(0, attempt.heapLeft);
}

const auto nameOfCase = [](const auto& info) { return std::get<OperationRow>(info.param).name; };

INSTANTIATE_TEST_SUITE_P(Operations, OperationFaultTest,
                         testing::Combine(testing::Values(Behaviour::classic),
                                          testing::ValuesIn(operationRows)),
                         nameOfCase);
INSTANTIATE_TEST_SUITE_P(Modern, OperationFaultTest,
                         testing::Combine(testing::Values(Behaviour::modern),
                                          testing::ValuesIn(operationRows)),
                         nameOfCase);
// In modern, no operation does.
INSTANTIATE_TEST_SUITE_P(Operations, InitializingFaultTest,
                         testing::Combine(testing::Values(Behaviour::classic),
                                          testing::ValuesIn(operationRows)),
                         nameOfCase);

// What an EC key refuses meets no fault: it makes no call.
TEST(RefusedOperationTest, anEcKeyDoesNotEncryptOrDecrypt)
{
    const LogOff logOff;
    const ScriptedToken token;
    Pkcs11 p11;
    ASSERT_TRUE(p11.loadModule(ScriptedToken::path()));
    P11ECKeyObject key;
    key.setSlotId(kSlot);
    key.setKeyId(L"0256");
    Bytes input(32, 0xA0);
    GuardedOutput output(64);
    DWORD length = untouchedLength;
    const size_t calls = token.calls().size();
    EXPECT_EQ(SECURITY_STATUS{NTE_NOT_SUPPORTED},
              key.encrypt(&p11, nullptr, input.data(), 32, output.data(), 64, &length, 0));
    EXPECT_EQ(SECURITY_STATUS{NTE_NOT_SUPPORTED},
              key.decrypt(&p11, nullptr, input.data(), 32, output.data(), 64, &length, 0,
                          SecretBytes(kPin.begin(), kPin.end())));
    EXPECT_EQ(calls, token.calls().size());
    EXPECT_TRUE(output.holdsExactly({}));
    EXPECT_EQ(untouchedLength, length);
}

}  // namespace NV::test
