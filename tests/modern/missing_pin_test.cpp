// Requests for the PIN that end without one: M3. On this machine, where a script takes the place of the
// dialog.

#include <stdexcept>

#include "dialog.h"
#include "operation_fixture.h"

namespace NV::test {

namespace {

class MissingPinTest : public TokenOperationTest {
protected:
    ~MissingPinTest() override { stand_in::setPinAnswer(nullptr); }

    // Signing, decrypting and agreeing have this status, and nothing is written or asked of the token.
    void expectAll(HRESULT expected, const stand_in::PinAnswer& answer)
    {
        stand_in::setPinAnswer(answer);
        expectRefused(expected, sign(rsa, 256));
        expectRefused(expected, decrypt(rsa, Bytes(256), 256));
        NCRYPT_SECRET_HANDLE secret = 0xEEEE;
        expectRefused(expected, table()->SecretAgreement(handle(), ec, ec, &secret, 0));
        EXPECT_EQ(0xEEEEU, secret);
    }
};

}  // namespace

TEST_F(MissingPinTest, anEmptyPinIsACancelledDialog)
{
    expectAll(NTE_USER_CANCELLED, [](const PINRequest*) { return SecretBytes(); });
}

TEST_F(MissingPinTest, aDialogThatCannotBeShownIsASilentContext)
{
    expectAll(NTE_SILENT_CONTEXT, [](const PINRequest*) -> SecretBytes {
        throw PINDialogException("no window station", PINDialogException::openFailed);
    });
}

TEST_F(MissingPinTest, otherFailuresOfTheDialogAreAsBefore)
{
    expectAll(NTE_USER_CANCELLED, [](const PINRequest*) -> SecretBytes {
        throw PINDialogException("cancelled", PINDialogException::userCanceled);
    });
    expectAll(NTE_INTERNAL_ERROR, [](const PINRequest*) -> SecretBytes {
        throw PINDialogException("something else", 77);
    });
    expectAll(NTE_INTERNAL_ERROR,
              [](const PINRequest*) -> SecretBytes { throw std::runtime_error("unknown"); });
}

}  // namespace NV::test
