// Why an operation failed: from the status, from the log of this process, from the state of the token.
// tests/tool/command_outcomes.sh shows the same with SoftHSM2.

#include <gtest/gtest.h>

#include <windows.h>

#include <string>

#include "check_fixture.h"
#include "config/mode.h"
#include "log_text.h"
#include "profile.h"
#include "system/operation_failure.h"

namespace NV::test {

namespace {

using tool::ExitCode;
using tool::PinUse;

constexpr SECURITY_STATUS wrongPin = static_cast<SECURITY_STATUS>(0x8010006B);

class OperationFailure : public CheckOfScriptedToken {
protected:
    ~OperationFailure() override { setMode(Mode()); }

    void configure(const std::string& lines)
    {
        profile.writeConfig("p11File=" + ScriptedToken::path() + "\nlogStore=~\\l\nlogRotate=7\n" +
                            lines);
    }
    // A record of the end of an operation, of this process.
    void logEnd(const std::string& more)
    {
        // Later than the beginning of this process.
        LogText log("2999-03-04");
        log.as(std::to_string(GetCurrentProcessId()), "0000000a");
        log.record("INF", "NVKSPSignHash", "DONE, STATUS=0x8009002d, ELAPSED:9.0(ms)" + more);
        writeFile(profile.path() / "l" / "nvksprovider-20260304.log", log.text());
    }

    void expect(SECURITY_STATUS status, ExitCode code, const std::string& reason,
                const std::string& advice, PinUse pin = PinUse::asks)
    {
        const tool::Failure failure = tool::operationFailure(status, "signing", pin);
        EXPECT_EQ(failure.exitCode(), code) << failure.what();
        EXPECT_EQ(std::string(failure.what()), "signing failed: " + reason);
        EXPECT_TRUE(contains(failure.advice(), advice)) << failure.advice();
        lastAdvice = failure.advice();
    }

    Profile profile;
    std::string lastAdvice;
};

constexpr const char* internalError = "NTE_INTERNAL_ERROR (0x8009002d)";

TEST_F(OperationFailure, IsTheResultThatTheStatusStandsFor)
{
    configure("mode=modern\nlogTypes=\n");
    expect(static_cast<SECURITY_STATUS>(0x8010006C), ExitCode::pinLocked,
           "SCARD_W_CHV_BLOCKED (0x8010006c), CKR_PIN_LOCKED", "Do not try again.");
    expect(wrongPin, ExitCode::pinWrong, "SCARD_W_WRONG_CHV (0x8010006b)", "correct PIN");
    expect(NTE_USER_CANCELLED, ExitCode::pinCancelled, "NTE_USER_CANCELLED (0x80090036)",
           "The PIN dialog was cancelled");
    expect(NTE_SILENT_CONTEXT, ExitCode::noDesktop, "NTE_SILENT_CONTEXT (0x80090022)", "desktop");
    expect(0x1234, ExitCode::failed, "0x00001234", "");
}

TEST_F(OperationFailure, IsTheResultInTheLogOfThisProcess)
{
    configure("mode=modern\nlogTypes=FILE\nlogLevel=INFO\n");
    logEnd(", RESULT=CKR_PIN_LEN_RANGE, KEY=01AB");
    expect(wrongPin, ExitCode::pinWrong, "SCARD_W_WRONG_CHV (0x8010006b), CKR_PIN_LEN_RANGE",
           "too long or too short");
    // It was an earlier operation whose result this is.
    expect(NTE_USER_CANCELLED, ExitCode::pinCancelled, "NTE_USER_CANCELLED (0x80090036)",
           "The PIN dialog was cancelled");
    logEnd(", RESULT=CKR_DEVICE_ERROR, KEY=01AB");
    expect(NTE_INTERNAL_ERROR, ExitCode::failed, std::string(internalError) + ", CKR_DEVICE_ERROR",
           "The token or its reader reports an error.");
    logEnd(", RESULT=0x80000001");
    expect(NTE_INTERNAL_ERROR, ExitCode::failed, std::string(internalError) + ", 0x80000001",
           "vendor's own");
}

TEST_F(OperationFailure, IsNoResultOfAnEarlierProcessOfTheSameNumber)
{
    configure("mode=modern\nlogTypes=FILE\nlogLevel=ERROR\n");
    LogText log("2026-03-04");
    log.as(std::to_string(GetCurrentProcessId()), "0000000a");
    log.record("ERR", "NV::P11RSAKeyObject::sign", "Failed (000000a4(CKR_PIN_LOCKED))");
    writeFile(profile.path() / "l" / "nvksprovider-20260304.log", log.text());
    expect(NTE_INTERNAL_ERROR, ExitCode::failed, internalError, "");
}

TEST_F(OperationFailure, SaysHowToFindOutWhatTheLogDoesNotSay)
{
    configure("mode=modern\nlogTypes=FILE\nlogLevel=INFO\n");
    logEnd("");
    expect(NTE_INTERNAL_ERROR, ExitCode::failed, internalError, "Run \"keywarden log on\"");
    configure("logTypes=FILE\n");
    expect(NTE_INTERNAL_ERROR, ExitCode::failed, internalError, "no failed PKCS#11 call");
    EXPECT_FALSE(contains(lastAdvice, "log on"));
}

// The log is off.
TEST_F(OperationFailure, IsTheStateOfThePinAfterAnOperationThatAsksForIt)
{
    for (const char* mode : {"", "mode=modern\n"}) {
        configure(std::string("logTypes=\n") + mode);
        setTokenFlags(kTokenFlags | CKF_USER_PIN_LOCKED | CKF_USER_PIN_COUNT_LOW);
        expect(NTE_INTERNAL_ERROR, ExitCode::pinLocked, internalError,
               "The log is off, but the token says that its PIN is locked.");
        setTokenFlags(kTokenFlags | CKF_USER_PIN_FINAL_TRY | CKF_USER_PIN_COUNT_LOW);
        expect(NTE_INTERNAL_ERROR, ExitCode::pinWrong, internalError,
               "that the next one locks it.");
        setTokenFlags(kTokenFlags | CKF_USER_PIN_COUNT_LOW);
        expect(NTE_INTERNAL_ERROR, ExitCode::pinWrong, internalError, "a wrong PIN was entered");
        expect(NTE_INTERNAL_ERROR, ExitCode::failed, internalError,
               "The log is off, so the PKCS#11 result is not known.", PinUse::none);
        EXPECT_FALSE(contains(lastAdvice, "PIN"));
        setTokenFlags(kTokenFlags);
        expect(NTE_INTERNAL_ERROR, ExitCode::failed, internalError,
               "The log is off, so the PKCS#11 result is not known.");
        EXPECT_FALSE(contains(lastAdvice, "PIN"));
    }
}

}  // namespace

}  // namespace NV::test
