// Assembling operations from lines.

#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "log/log_operation.h"
#include "log/log_report.h"
#include "log_text.h"
#include "tool_program.h"

namespace NV::test {

namespace {

using tool::Operation;

// Each call as "C_Login CKR_OK".
std::vector<std::string> callsOf(const Operation& operation)
{
    std::vector<std::string> calls;
    for (const tool::TokenCall& call : operation.calls)
        calls.push_back(call.name + " " + call.result);
    return calls;
}

using Texts = std::vector<std::string>;

// The one operation of a log.
Operation operationOf(const LogText& log)
{
    const auto operations = operationsOf(log.text());
    EXPECT_EQ(operations.size(), 1U);
    return operations.at(0);
}

TEST(LogOperation, HasStatusTimeAndPlace)
{
    const auto operations = operationsOf(LogText()
                                             .operation("OpenKey", "0.250")
                                             .operation("SignHash", "1.500", "0x8009002d")
                                             .text());
    ASSERT_EQ(operations.size(), 2U);
    EXPECT_EQ(operations[0].name, "OpenKey");
    EXPECT_EQ(operations[0].time, "2026-03-04 17:00:00.000");
    EXPECT_EQ(operations[0].process, "04312");
    EXPECT_EQ(operations[0].thread, "1a2b3c4d");
    EXPECT_EQ(operations[0].line, 1U);
    EXPECT_EQ(operations[0].elapsed, 0.25);
    EXPECT_TRUE(operations[0].finished);
    EXPECT_FALSE(operations[0].failed());
    EXPECT_EQ(operations[1].line, 4U);
    EXPECT_EQ(operations[1].status, 0x8009002DU);
    EXPECT_TRUE(operations[1].failed());
}

// A log at the level INFO.
TEST(LogOperation, IsTheRecordOfItsEnd)
{
    size_t foreign = 0;
    const auto operations = operationsOf(
        LogText()
            .record("INF", "NVKSPOpenKey", "DONE, STATUS=0x0, ELAPSED:0.214(ms), KEY=01AB")
            .record("ERR", "NV::P11RSAKeyObject::sign", "Failed (000000a0(CKR_PIN_INCORRECT))")
            .record("INF", "NVKSPSignHash",
                    "DONE, STATUS=0x8010006b, ELAPSED:1960.418(ms), RESULT=CKR_PIN_INCORRECT, "
                    "KEY=01AB")
            .record("INF", "NVKSPFreeKey", "DONE, STATUS=0x0, ELAPSED:0.010(ms)")
            .text(),
        &foreign);
    EXPECT_EQ(foreign, 0U);
    ASSERT_EQ(operations.size(), 3U);
    EXPECT_EQ(operations[0].name, "OpenKey");
    EXPECT_EQ(operations[0].elapsed, 0.214);
    EXPECT_EQ(operations[0].key, "01AB");
    EXPECT_EQ(operations[0].result, "");
    EXPECT_FALSE(operations[0].failed());
    EXPECT_TRUE(operations[0].errors.empty());
    EXPECT_EQ(operations[1].name, "SignHash");
    EXPECT_EQ(operations[1].line, 3U);
    EXPECT_TRUE(operations[1].failed());
    EXPECT_EQ(operations[1].result, "CKR_PIN_INCORRECT");
    EXPECT_EQ(operations[1].key, "01AB");
    ASSERT_EQ(operations[1].errors.size(), 1U);
    EXPECT_EQ(tool::statusOf(operations[1]), "SCARD_W_WRONG_CHV (0x8010006b), CKR_PIN_INCORRECT");
    EXPECT_EQ(operations[2].name, "FreeKey");
    EXPECT_TRUE(operations[2].key.empty());
    EXPECT_TRUE(operations[2].errors.empty());
}

// With the level TRACE, a log has both.
TEST(LogOperation, IsNotDoubledByTheRecordOfItsEnd)
{
    const std::string end = "DONE, STATUS=0x0, ELAPSED:9.000(ms), KEY=01AB";
    const auto operations = operationsOf(LogText()
                                             .operation("SignHash", "8.500")
                                             .record("INF", "NVKSPSignHash", end)
                                             .record("INF", "NVKSPSignHash", end)
                                             .operation("OpenKey", "1.000")
                                             .record("INF", "NVKSPSignHash", end)
                                             .text());
    ASSERT_EQ(operations.size(), 4U);
    EXPECT_EQ(operations[0].elapsed, 8.5);
    EXPECT_EQ(operations[0].key, "01AB");
    EXPECT_EQ(operations[1].elapsed, 9);
    EXPECT_EQ(operations[2].name, "OpenKey");
    EXPECT_EQ(operations[2].key, "");
    EXPECT_EQ(operations[3].elapsed, 9);
}

TEST(LogOperation, EndOfAnEnumerationIsNoFailure)
{
    const Operation operation = operationOf(LogText().operation("EnumKeys", "0.1", "0x8009002a"));
    EXPECT_FALSE(operation.failed());
}

TEST(LogOperation, HasItsCallsWithResults)
{
    const Operation operation = operationOf(LogText()
                                                .enter("SignHash")
                                                .call("C_Initialize", "00000000(CKR_OK)", "2.250")
                                                .endedCall("C_SignInit")
                                                .call("C_Sign", "80000123(UNKNOWN)")
                                                .call("C_Logout", "80000124")
                                                .leave("SignHash", "10.0"));
    EXPECT_EQ(callsOf(operation),
              (Texts{"C_Initialize CKR_OK", "C_SignInit ", "C_Sign UNKNOWN", "C_Logout 80000124"}));
    EXPECT_EQ(operation.calls[0].elapsed, 2.25);
    EXPECT_EQ(operation.calls[0].begun - operation.begun, 100);
    EXPECT_FALSE(operation.calls[0].failed());
    EXPECT_FALSE(operation.calls[1].failed());
    EXPECT_TRUE(operation.calls[3].failed());
}

// The discovery's records have no times of their own; those of the records count.
TEST(LogOperation, HasTheCallsOfTheDiscovery)
{
    const Operation operation = operationOf(
        LogText()
            .trace("NV::ProviderManager::OpenProvider", "ENTER")
            .trace("NV::Provider::Provider", "ENTER")
            .trace("NV::Provider::Provider", "LEAVE")
            .trace("NV::Provider::init", "ENTER")
            .trace("NV::P11Module::init", "Call C_Finalize():START")
            .trace("NV::P11Module::init",
                   "Call C_Finalize():END RV=00000190(CKR_CRYPTOKI_NOT_INITIALIZED)")
            .trace("NV::P11Module::init", "Call C_GetInfo():START")
            .trace("NV::P11Module::init", "Call C_GetInfo():END RV=00000030(CKR_DEVICE_ERROR)")
            .trace("NV::Provider::init", "RESULT=0, ELAPSED:3.000(ms)")
            .trace("NV::Provider::init", "LEAVE")
            .trace("NV::ProviderManager::OpenProvider", "STATUS=0x8009002d, ELAPSED:4.000(ms)")
            .trace("NV::ProviderManager::OpenProvider", "LEAVE"));
    EXPECT_EQ(operation.name, "OpenProvider");
    EXPECT_EQ(callsOf(operation),
              (Texts{"C_Finalize CKR_CRYPTOKI_NOT_INITIALIZED", "C_GetInfo CKR_DEVICE_ERROR"}));
    EXPECT_FALSE(operation.calls[0].failed());
    EXPECT_TRUE(operation.calls[1].failed());
    EXPECT_EQ(operation.calls[1].elapsed, 100);
}

TEST(LogOperation, TakesAResultFromTheErrorBehindTheCall)
{
    const Operation operation = operationOf(
        LogText()
            .enter("SignHash")
            .endedCall("C_Login")
            .record("ERR", "NV::P11RSAKeyObject::sign",
                    "Failed to login the token (000000a0(CKR_PIN_INCORRECT))")
            .endedCall("C_CloseSession")
            .record("ERR", "NV::Provider::SignHash", "no result here (at all)")
            .call("C_Finalize", "00000000(CKR_OK)")
            .record("ERR", "NV::Provider::SignHash", "late (00000005(CKR_GENERAL_ERROR))")
            .leave("SignHash", "9.0", "0x8009002d"));
    EXPECT_EQ(callsOf(operation),
              (Texts{"C_Login CKR_PIN_INCORRECT", "C_CloseSession ", "C_Finalize CKR_OK"}));
    EXPECT_TRUE(operation.calls[0].failed());
    ASSERT_EQ(operation.errors.size(), 3U);
}

TEST(LogOperation, TakesAResultFromItsOwnRecord)
{
    const Operation operation = operationOf(
        LogText()
            .enter("SignHash")
            .endedCall("C_Login")
            .record("INF", "NVEnterPIN", "CALL C_Login(): RETURN CODE:000000a4(CKR_PIN_LOCKED)")
            .leave("SignHash", "9.0", "0x8009002d"));
    EXPECT_EQ(callsOf(operation), Texts{"C_Login CKR_PIN_LOCKED"});
}

TEST(LogOperation, HasTheDialogsTime)
{
    const Operation operation = operationOf(LogText()
                                                .enter("SignHash")
                                                .trace("NV::Provider::enterPIN", "ENTER")
                                                .trace("NV::PINDialog::open", "ENTER")
                                                .trace("NV::PINDialog::proc", "something")
                                                .trace("NV::PINDialog::open", "LEAVE")
                                                .trace("NV::Provider::enterPIN", "LEAVE")
                                                .endedCall("C_Login")
                                                .leave("SignHash", "900.0"));
    EXPECT_EQ(callsOf(operation), (Texts{"PIN dialog ", "C_Login "}));
    EXPECT_EQ(operation.calls[0].elapsed, 200);
}

TEST(LogOperation, UnfinishedHasTheCallThatDidNotReturn)
{
    const Operation operation = operationOf(LogText()
                                                .enter("SignHash")
                                                .trace("NV::Provider::enterPIN", "ENTER")
                                                .endedCall("C_Login")
                                                .start("C_Sign"));
    EXPECT_FALSE(operation.finished);
    EXPECT_EQ(operation.name, "SignHash");
    EXPECT_EQ(callsOf(operation), (Texts{"C_Login ", "C_Sign no return"}));
    EXPECT_TRUE(operation.calls[1].failed());
}

// The thread's next operation ends one that was left by an exception.
TEST(LogOperation, UnfinishedDoesNotSwallowWhatFollows)
{
    const auto operations = operationsOf(LogText()
                                             .enter("SignHash")
                                             .endedCall("C_Login")
                                             .enter("OpenKey")
                                             .endedCall("C_GetInfo")
                                             .leave("OpenKey", "0.1")
                                             .operation("FreeKey", "0.2")
                                             .text());
    ASSERT_EQ(operations.size(), 3U);
    EXPECT_FALSE(operations[0].finished);
    EXPECT_EQ(callsOf(operations[0]), Texts{"C_Login "});
    EXPECT_EQ(operations[1].name, "OpenKey");
    EXPECT_EQ(callsOf(operations[1]), Texts{"C_GetInfo "});
    EXPECT_EQ(operations[2].name, "FreeKey");
    EXPECT_TRUE(operations[2].calls.empty());
}

TEST(LogOperation, HasTheCallThatThrew)
{
    const Operation operation =
        operationOf(LogText()
                        .enter("SignHash")
                        .start("C_Sign")
                        .record("ERR", "NV::Pkcs11::C_Sign", "Caught Exception")
                        .endedCall("C_Logout")
                        .leave("SignHash", "2.0", "0x8009002d"));
    EXPECT_EQ(callsOf(operation), (Texts{"C_Sign exception", "C_Logout "}));
}

TEST(LogOperation, ThreadsAndProcessesAreApart)
{
    LogText log;
    log.as("1", "0000000a").enter("SignHash").start("C_Sign");
    log.as("1", "0000000b").enter("OpenKey");
    log.as("2", "0000000a").enter("Decrypt").endedCall("C_Decrypt");
    log.as("1", "0000000a").trace("NV::Pkcs11::C_Sign", "CALL C_Sign(): END [7.000 msec]");
    log.as("1", "0000000b").endedCall("C_GetInfo").leave("OpenKey", "5.0");
    log.as("2", "0000000a").leave("Decrypt", "6.0", "0x80090027");
    log.as("1", "0000000a").leave("SignHash", "8.0");
    const auto operations = operationsOf(log.text());
    ASSERT_EQ(operations.size(), 3U);
    EXPECT_EQ(operations[0].name, "SignHash");
    EXPECT_EQ(callsOf(operations[0]), Texts{"C_Sign "});
    EXPECT_EQ(operations[0].calls[0].elapsed, 7.0);
    EXPECT_EQ(operations[1].name, "OpenKey");
    EXPECT_EQ(operations[1].thread, "0000000b");
    EXPECT_EQ(callsOf(operations[1]), Texts{"C_GetInfo "});
    EXPECT_EQ(operations[2].process, "2");
    EXPECT_TRUE(operations[2].failed());
}

TEST(LogOperation, BrokenAndForeignLinesAreCounted)
{
    size_t foreign = 0;
    LogText log;
    log.raw("").raw("   \r").raw("somebody else's line").raw("2026-03-04 17:05:09.042");
    log.raw("2026-03-04 17:05:09.042 TRC").raw("2026-03-04 17:05:09.042 XYZ [1,0000000a] x");
    log.raw("2026-03-04 17:05:09.042 TRC [x,0000000a] x");
    log.raw("2026-03-04 17:05:09.042 TRC [1,0a] x").raw(std::string("\0\xFF\x80", 3));
    log.operation("OpenKey", "1.0");
    const auto operations = operationsOf(log.text(), &foreign);
    EXPECT_EQ(foreign, 7U);
    ASSERT_EQ(operations.size(), 1U);
    EXPECT_EQ(operations[0].line, 10U);
}

TEST(LogOperation, CarriageReturnsDoNoHarm)
{
    std::string text = LogText().operation("OpenKey", "1.0").text();
    for (size_t at = 0; (at = text.find('\n', at)) != std::string::npos; at += 2)
        text.insert(at, "\r");
    const auto operations = operationsOf(text);
    ASSERT_EQ(operations.size(), 1U);
    EXPECT_TRUE(operations[0].finished);
}

// SignHash at the level TRACE. The output is a pointer; a null one asks for the length.
LogText signing(const std::string& output)
{
    LogText log;
    log.enter("SignHash").record("TRC", "NV::Provider::SignHash", "ARG[0]:hKey=0000000000123450");
    log.record("TRC", "NV::Provider::SignHash", "ARG[4]:pbSignature=" + output);
    return log;
}

TEST(LogOperation, IsASizeQueryWithoutAnOutput)
{
    EXPECT_TRUE(operationOf(signing("0000000000000000").leave("SignHash", "0.1")).sizeQuery);
    EXPECT_FALSE(operationOf(signing("00000000001234a0").leave("SignHash", "0.1")).sizeQuery);
    // One that fails is a failure.
    const Operation failed =
        operationOf(signing("0000000000000000").leave("SignHash", "0.1", "0x80090027"));
    EXPECT_FALSE(failed.sizeQuery);
    EXPECT_TRUE(failed.failed());
}

// Nobody types a PIN in less than two milliseconds, so such a signature was none.
TEST(LogOperation, IsASizeQueryByItsTimeAtInfo)
{
    const auto operations = operationsOf(
        LogText()
            .record("INF", "NVKSPSignHash", "DONE, STATUS=0x0, ELAPSED:0.214(ms), KEY=01AB")
            .record("INF", "NVKSPSignHash", "DONE, STATUS=0x0, ELAPSED:960.1(ms), KEY=01AB")
            .record("INF", "NVKSPVerifySignature", "DONE, STATUS=0x0, ELAPSED:0.2(ms), KEY=01AB")
            .record("INF", "NVKSPSignHash", "DONE, STATUS=0x80090027, ELAPSED:0.2(ms)")
            .text());
    ASSERT_EQ(operations.size(), 4U);
    EXPECT_TRUE(operations[0].sizeQuery);
    EXPECT_FALSE(operations[1].sizeQuery);
    EXPECT_FALSE(operations[2].sizeQuery);
    EXPECT_FALSE(operations[3].sizeQuery);
}

// Classic answers with status 0 and 256 zeros.
TEST(LogOperation, FailsIfNobodyEnteredAPin)
{
    const auto operationWithPin = [](const std::string& length) {
        LogText log = signing("00000000001234a0");
        log.trace("NV::Provider::SignHash",
                  "Success to retrive the entered pin = " + length + " (bytes)");
        return operationOf(log.leave("SignHash", "2.0"));
    };
    const Operation without = operationWithPin("0");
    EXPECT_TRUE(without.withoutPin);
    EXPECT_TRUE(without.failed());
    EXPECT_EQ(tool::statusOf(without), "no PIN was entered");
    EXPECT_FALSE(operationWithPin("6").failed());
    EXPECT_FALSE(operationWithPin("60").failed());
}

TEST(LogOperation, NamesTheResultThatFailed)
{
    LogText log;
    log.enter("SignHash").call("C_Initialize", "00000191(CKR_CRYPTOKI_ALREADY_INITIALIZED)");
    log.call("C_Sign", "00000030(CKR_DEVICE_ERROR)").leave("SignHash", "2.0", "0x8009002d");
    EXPECT_EQ(operationOf(log).failedResult(), "CKR_CRYPTOKI_ALREADY_INITIALIZED");
    LogText error;
    error.enter("SignHash").endedCall("C_Login");
    error.record("ERR", "NV::P11RSAKeyObject::sign", "Failed (000000a4(CKR_PIN_LOCKED))");
    EXPECT_EQ(operationOf(error.leave("SignHash", "2.0", "0x8009002d")).failedResult(),
              "CKR_PIN_LOCKED");
}

// The record that modern writes first in a process.
TEST(LogOperation, KnowsTheProgramOfItsProcess)
{
    LogText log;
    log.as("00007", "0000000a").enter("SignHash");
    log.record("INF", "DllMain", "Program=C:\\Odd\\odd.exe, USER=ODD\\me, VERSION=0.2.0");
    log.operation("OpenKey", "1.0");
    log.as("00008", "0000000b").operation("OpenKey", "1.0");
    const auto operations = operationsOf(log.text());
    ASSERT_EQ(operations.size(), 3U);
    // An earlier process with the same number.
    EXPECT_FALSE(operations[0].finished);
    EXPECT_EQ(operations[0].program, "");
    EXPECT_EQ(operations[1].program, "C:\\Odd\\odd.exe");
    EXPECT_EQ(operations[2].program, "");
}

// Memory does not grow with the number of processes in a log.
TEST(LogOperation, ThreadsThatWriteNoMoreAreForgotten)
{
    constexpr int processes = 25'000;
    LogText log;
    for (int i = 0; i < processes; ++i)
        log.as(std::to_string(i), "0000000a").enter("SignHash");
    size_t early = 0;
    size_t all = 0;
    bool atEnd = false;
    tool::OperationReader reader([&](const Operation& operation) {
        EXPECT_FALSE(operation.finished);
        early += atEnd ? 0U : 1U;
        ++all;
    });
    std::istringstream stream(log.text());
    for (std::string line; std::getline(stream, line);)
        reader.addLine(line);
    atEnd = true;
    reader.finish();
    EXPECT_EQ(all, size_t{processes});
    EXPECT_GE(early, all - 10'000);
}

// The reader accepts any bytes: a log that is cut off anywhere, and one with bytes changed or missing.
TEST(LogFuzz, NothingBreaksTheReader)
{
    LogText log;
    log.enter("SignHash")
        .trace("NV::PINDialog::open", "ENTER")
        .trace("NV::PINDialog::open", "LEAVE");
    log.call("C_Initialize", "00000000(CKR_OK)").endedCall("C_Login");
    log.record("ERR", "NV::P11RSAKeyObject::sign", "Failed (000000a0(CKR_PIN_INCORRECT))");
    log.record("INF", "NVKSPSignHash", "DONE, STATUS=0x0, ELAPSED:9.0(ms), RESULT=odd, KEY=01AB");
    log.leave("SignHash", "12.500", "0x8009002d").enter("OpenKey").start("C_GetInfo");
    log.trace("NV::P11Module::init", "Call C_GetSlotList():START");
    log.trace("NV::P11Module::init", "Call C_GetSlotList():END RV=00000000(CKR_OK)");
    const std::string& whole = log.text();
    for (size_t cut = 0; cut <= whole.size(); ++cut) {
        operationsOf(whole.substr(0, cut));
        operationsOf(whole.substr(cut));
    }
    std::mt19937 random(7391);  // NOLINT(cert-msc51-cpp): a failure must come again
    constexpr std::string_view odd("\0\n\r[](),:=<\"'\xFF\x80 9-", 18);
    for (int round = 0; round < 3000; ++round) {
        std::string text = whole;
        for (int i = 0; i < 6; ++i) {
            const size_t at = random() % text.size();
            if (random() % 3 == 0)
                text.erase(at, random() % 40);
            else
                text[at] = odd[random() % odd.size()];
            if (text.empty())
                text = whole;
        }
        const auto operations = operationsOf(text);
        summaryOf(operations).figures();
        for (const Operation& operation : operations)
            EXPECT_FALSE(tool::toJson(operation, false)
                             .dump(-1, ' ', false, Json::error_handler_t::replace)
                             .empty());
        EXPECT_TRUE(pageOf(operations, "odd").ends_with("</html>\n"));
    }
}

// A log can be read between the end of an operation and the record of it.
// A log that still grows.
struct GrowingLog {
    std::vector<Operation> given;
    tool::OperationReader reader{
        [this](Operation operation) { given.push_back(std::move(operation)); }};

    void grow(const LogText& log)
    {
        std::istringstream stream(log.text());
        for (std::string line; std::getline(stream, line);)
            reader.addLine(line);
    }
};

TEST(LogOperation, IsGivenOnceWhileTheLogGrows)
{
    GrowingLog log;
    log.grow(LogText().operation("SignHash", "1.0"));
    log.reader.settle();
    EXPECT_TRUE(log.given.empty());
    log.grow(LogText().record("INF", "NVKSPSignHash", "DONE, STATUS=0x0, ELAPSED:1(ms), KEY=01AB"));
    log.reader.settle();
    ASSERT_EQ(log.given.size(), 1U);
    EXPECT_EQ(log.given[0].key, "01AB");
    // Classic writes no such record.
    log.grow(LogText().operation("OpenKey", "1.0"));
    log.reader.settle();
    log.reader.settle();
    EXPECT_EQ(log.given.size(), 2U);
}

TEST(LogOperation, WaitsForItsEndAlthoughAnotherOneHasWaited)
{
    GrowingLog log;
    log.grow(LogText().operation("OpenKey", "1.0"));
    log.reader.settle();
    log.grow(LogText().operation("SignHash", "1.0"));
    log.reader.settle();
    EXPECT_EQ(log.given.size(), 1U);
    log.grow(LogText().record("INF", "NVKSPSignHash", "DONE, STATUS=0x0, ELAPSED:1(ms), KEY=01AB"));
    log.reader.settle();
    ASSERT_EQ(log.given.size(), 2U);
    EXPECT_EQ(log.given[1].key, "01AB");
}

TEST(LogOperation, IsGivenUnfinishedWhenItsProcessIsFollowedByAnotherOfItsNumber)
{
    GrowingLog log;
    log.grow(LogText().as("00007", "0000000a").enter("SignHash"));
    log.grow(LogText().as("00008", "0000000a").enter("Decrypt"));
    log.grow(
        LogText()
            .as("00007", "0000000b")
            .record("INF", "DllMain", "Program=C:\\Odd\\odd.exe, USER=ODD\\me, VERSION=0.2.0"));
    ASSERT_EQ(log.given.size(), 1U);
    EXPECT_EQ(log.given[0].name, "SignHash");
    EXPECT_FALSE(log.given[0].finished);
}

}  // namespace

}  // namespace NV::test
