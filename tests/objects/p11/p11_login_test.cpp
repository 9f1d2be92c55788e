// C_Login's rules for the PIN, and NVEnterPIN.

#include <chrono>
#include <stdexcept>
#include <thread>

#include "token_layer_fixture.h"
#include "trace_file.h"

namespace NV::test {

namespace {

using namespace std::chrono_literals;

class Pkcs11LoginTest : public LoadedLayerTest {
protected:
    CK_SESSION_HANDLE session = 0;

    void SetUp() override
    {
        LoadedLayerTest::SetUp();
        session = openSession();
    }
};

// What NVEnterPIN and C_Login write when no PIN is entered.
constexpr std::string_view emptyPinLines = R"(
TRC NVEnterPIN:ENTER
TRC NVEnterPIN:Popup Dialog: START
TRC NVEnterPIN:Popup Dialog: END
ERR NVEnterPIN:Entered PIN is empty
TRC NVEnterPIN:LEAVE
)";

TEST_F(Pkcs11LoginTest, PassesAPinOnAsItIs)
{
    CK_BYTE pin[] = {'o', 'd', 'd', '-', 'P', 'I', 'N', '-', '7', '3', '9', '1', '!'};
    EXPECT_EQ(CKR_PIN_INCORRECT, p11.C_Login(session, CKU_USER, pin, 13));
    EXPECT_EQ(CKR_OK, p11.C_Login(session, CKU_USER, pin, 12));
    EXPECT_EQ((Strings{"C_Login(session=0x5E55, userType=1, pin=odd-PIN-7391!)",
                       "C_Login(session=0x5E55, userType=1, pin=odd-PIN-7391)"}),
              token.calls());
    EXPECT_TRUE(token.userLoggedIn());
}

TEST_F(Pkcs11LoginTest, PassesAPinOfLengthZeroOn)
{
    CK_BYTE pin = 'x';
    EXPECT_EQ(CKR_PIN_INCORRECT, p11.C_Login(session, CKU_USER, &pin, 0));
    EXPECT_EQ(Strings{"C_Login(session=0x5E55, userType=1, pin=)"}, token.calls());
}

TEST_F(Pkcs11LoginTest, RefusesALengthWithoutAPin)
{
    EXPECT_EQ(CKR_GENERAL_ERROR, p11.C_Login(session, CKU_USER, nullptr, 7));
    expectTrace(log(), "objects/p11/p11_login/refuses_a_length_without_a_pin");
    EXPECT_EQ(Strings{}, token.calls());
}

TEST_F(Pkcs11LoginTest, AsksForAPinUnderTheModulesLock)
{
    EXPECT_EQ(CKR_GENERAL_ERROR, p11.C_Login(session, CKU_USER, nullptr, 0));
    const std::string first = R"(
TRC NV::Pkcs11::C_Login:ENTER
DBG NV::Pkcs11::C_Login:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_Login:ARG[1]:userType=1
DBG NV::Pkcs11::C_Login:ARG[2]:pPin=0000000000000000
DBG NV::Pkcs11::C_Login:ARG[3]:ulPinLen=0
TRC NV::P11Module::lock:ENTER
TRC NV::P11Module::lock:Call CreateMutex():START
TRC NV::P11Module::lock:Call CreateMutex():END RV=00000000(CKR_OK)
TRC NV::P11Module::lock:Call LockMutex():START
TRC NV::P11Module::lock:Call LockMutex():END RV=00000000(CKR_OK)
TRC NV::P11Module::lock:LEAVE(1)
TRC NVEnterPIN:ENTER
TRC NVEnterPIN:Popup Dialog: START
TRC NVEnterPIN:Popup Dialog: END
ERR NVEnterPIN:Entered PIN is empty
TRC NVEnterPIN:LEAVE
TRC NV::P11Module::unlock:ENTER
TRC NV::P11Module::unlock:Call UnlockMutex():START
TRC NV::P11Module::unlock:Call UnlockMutex():END RV=00000000(CKR_OK)
TRC NV::P11Module::unlock:LEAVE(1)
TRC NV::Pkcs11::C_Login:LEAVE
)";
    expectLines(first, log());
    EXPECT_EQ(Strings{}, token.calls());

    if (HasFailure())
        return;  // without the unlocking, the next call would not end
    // The mutex stays.
    EXPECT_EQ(CKR_GENERAL_ERROR, p11.C_Login(session, CKU_USER, nullptr, 0));
    const std::string creation =
        "TRC NV::P11Module::lock:Call CreateMutex():START\n"
        "TRC NV::P11Module::lock:Call CreateMutex():END RV=00000000(CKR_OK)\n";
    expectLines(replaced(first, creation, ""), log());
}

TEST(Pkcs11EmptyLoginTest, AsksForAPinWithoutInitArguments)
{
    LogCapture capture;
    ScriptedToken token;
    Pkcs11 p11;
    ASSERT_TRUE(p11.loadModule(ScriptedToken::path()));
    capture.takeLines();
    token.clearCalls();
    EXPECT_EQ(CKR_GENERAL_ERROR, p11.C_Login(0x5E55, CKU_SO, nullptr, 0));
    EXPECT_EQ(R"(TRC NV::Pkcs11::C_Login:ENTER
DBG NV::Pkcs11::C_Login:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_Login:ARG[1]:userType=0
DBG NV::Pkcs11::C_Login:ARG[2]:pPin=0000000000000000
DBG NV::Pkcs11::C_Login:ARG[3]:ulPinLen=0
TRC NV::P11Module::lock:ENTER
TRC NV::P11Module::lock:LEAVE(1))" +
                  std::string(emptyPinLines) +
                  R"(TRC NV::P11Module::unlock:ENTER
TRC NV::P11Module::unlock:LEAVE(1)
TRC NV::Pkcs11::C_Login:LEAVE
)",
              render(capture.takeLines()));
    EXPECT_EQ(Strings{}, token.calls());
}

Pkcs11* otherCaller = nullptr;
std::thread otherCall;

CK_RV NV_CK_CALL createAny(CK_VOID_PTR_PTR mutex)
{
    *mutex = &otherCaller;
    return CKR_OK;
}

CK_RV NV_CK_CALL callFromElsewhere(CK_VOID_PTR)
{
    otherCall = std::thread([] { otherCaller->C_CancelFunction(0x5E55); });
    std::this_thread::sleep_for(50ms);
    return CKR_OK;
}

CK_RV NV_CK_CALL accept(CK_VOID_PTR)
{
    return CKR_OK;
}

TEST_F(Pkcs11LoginTest, HoldsItsOwnLockWhileItAsks)
{
    CK_C_INITIALIZE_ARGS args{createAny, accept, callFromElsewhere, accept, 0, nullptr};
    ASSERT_EQ(CKR_CRYPTOKI_ALREADY_INITIALIZED, p11.C_Initialize(&args));
    token.clearCalls();
    log();
    otherCaller = &p11;
    EXPECT_EQ(CKR_GENERAL_ERROR, p11.C_Login(session, CKU_USER, nullptr, 0));
    otherCall.join();
    const std::string lines = log();
    EXPECT_LT(lines.find("C_CancelFunction:ENTER"), lines.find("NVEnterPIN:ENTER"));
    EXPECT_GT(lines.find("C_CancelFunction:ARG[0]"), lines.find("C_Login:LEAVE"));
    EXPECT_EQ(Strings{"C_CancelFunction(session=0x5E55)"}, token.calls());
}

CK_RV NV_CK_CALL throwing(CK_VOID_PTR)
{
    throw std::runtime_error("no lock");
}

TEST_F(Pkcs11LoginTest, CatchesAnExceptionOfTheCallersMutex)
{
    CK_C_INITIALIZE_ARGS args{createAny, accept, throwing, accept, 0, nullptr};
    ASSERT_EQ(CKR_CRYPTOKI_ALREADY_INITIALIZED, p11.C_Initialize(&args));
    log();
    EXPECT_EQ(CKR_FUNCTION_FAILED, p11.C_Login(session, CKU_USER, nullptr, 0));
    EXPECT_TRUE(log().ends_with("ERR NV::Pkcs11::C_Login:Caught Exception\n"
                                "TRC NV::Pkcs11::C_Login:LEAVE\n"));
    // The layer's own lock is free again.
    EXPECT_EQ(CKR_OK, p11.C_CancelFunction(session));
}

TEST_F(Pkcs11LoginTest, NvEnterPinLogsInWithThePinOfItsSource)
{
    EXPECT_EQ(CKR_OK, NVEnterPIN(*p11.module(), session, CKU_USER,
                                 {{"pin", "odd-PIN-7391"}, {"pin2", "another"}}));
    expectTrace(log(), "objects/p11/p11_login/nv_enter_pin_logs_in_with_the_pin_of_its_source");
    EXPECT_EQ(Strings{"C_Login(session=0x5E55, userType=1, pin=odd-PIN-7391)"}, token.calls());
}

TEST_F(Pkcs11LoginTest, NvEnterPinCountsThePinsBytes)
{
    EXPECT_EQ(CKR_PIN_INCORRECT,
              NVEnterPIN(*p11.module(), session, CKU_USER, {{"pin", "\xC3\xA4\xC3\xB6"}}));
    const std::string lines = log();
    EXPECT_NE(std::string::npos,
              lines.find("DBG NVEnterPIN:Entered Pin=\xC3\xA4\xC3\xB6[4bytes]\n"));
    EXPECT_NE(
        std::string::npos,
        lines.find("INF NVEnterPIN:CALL C_Login(): RETURN CODE:000000a0(CKR_PIN_INCORRECT)\n"));
}

TEST_F(Pkcs11LoginTest, NvEnterPinWithoutAPinDoesNotCall)
{
    EXPECT_EQ(CKR_GENERAL_ERROR, NVEnterPIN(*p11.module(), session, CKU_USER));
    expectLines(emptyPinLines, log());
    EXPECT_EQ(CKR_GENERAL_ERROR, NVEnterPIN(*p11.module(), session, CKU_USER, {{"PIN", "x"}}));
    expectLines(emptyPinLines, log());
    EXPECT_EQ(Strings{}, token.calls());
}

}  // namespace

}  // namespace NV::test
