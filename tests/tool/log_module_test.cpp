// keywarden log on logs of the module itself.

#include <algorithm>
#include <chrono>
#include <random>
#include <sstream>
#include <string>

#include "dialog_driver.h"
#include "log/log_operation.h"
#include "log/log_report.h"
#include "log_text.h"
#include "module_fixture.h"
#include "tool_program.h"

namespace NV::test {

namespace {

using namespace std::chrono_literals;
using tool::Operation;

constexpr const wchar_t* rightPin = L"odd-PIN-7391";

class LogOfTheModule : public ServedKeysTest {
protected:
    SECURITY_STATUS sign(DialogDriver::Script script)
    {
        BCRYPT_PKCS1_PADDING_INFO sha256{L"SHA256"};
        const DialogDriver dialog(std::move(script));
        return table()->SignHash(handle(), rsa, &sha256, hash.data(),
                                 static_cast<DWORD>(hash.size()), output.at(), 256, &output.length,
                                 BCRYPT_PAD_PKCS1);
    }

    std::string logFile() const
    {
        const auto names = entryNames(profile.logDirectory());
        return names.size() == 1 ? narrowPath(profile.logDirectory() / names.front())
                                 : std::string();
    }

    std::vector<Operation> operations(size_t* foreign = nullptr) const
    {
        return operationsOf(readFile(logFile()), foreign);
    }

    // The latest operation of that name.
    Operation last(const std::string& name) const
    {
        const auto all = operations();
        const auto found = std::ranges::find(all.rbegin(), all.rend(), name, &Operation::name);
        if (found != all.rend())
            return *found;
        ADD_FAILURE() << "no operation " << name;
        return {};
    }

    static tool::TokenCall callOf(const Operation& operation, const std::string& name)
    {
        const auto call = std::ranges::find(operation.calls, name, &tool::TokenCall::name);
        if (call != operation.calls.end())
            return *call;
        ADD_FAILURE() << "no call " << name;
        return {};
    }

    Output output;
};

TEST_F(LogOfTheModule, EachOperationIsFinished)
{
    EXPECT_EQ(sign(DialogDriver::entering(rightPin)), ERROR_SUCCESS);
    EXPECT_EQ(table()->FreeKey(handle(), ec), ERROR_SUCCESS);
    size_t foreign = 0;
    const auto all = operations(&foreign);
    EXPECT_EQ(foreign, 0U);
    std::vector<std::string> names;
    for (const Operation& operation : all) {
        EXPECT_TRUE(operation.finished) << operation.name;
        EXPECT_FALSE(operation.failed()) << operation.name;
        names.push_back(operation.name);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"OpenProvider", "OpenKey", "OpenKey", "SignHash",
                                               "FreeKey"}));
    // Opening discovers the token.
    EXPECT_EQ(callOf(all.front(), "C_GetTokenInfo").result, "CKR_OK");
    EXPECT_EQ(callOf(all.front(), "C_GetMechanismList").result, "CKR_OK");
}

TEST_F(LogOfTheModule, ASignatureHasItsCallsTimesAndTheDialog)
{
    token.delay("C_Login", 30ms);
    token.delay("C_Sign", 60ms);
    EXPECT_EQ(sign(DialogDriver::entering(rightPin)), ERROR_SUCCESS);
    const Operation operation = last("SignHash");
    std::vector<std::string> names;
    double sum = 0;
    for (const tool::TokenCall& call : operation.calls) {
        EXPECT_FALSE(call.failed()) << call.name << " " << call.result;
        names.push_back(call.name);
        sum += call.elapsed;
    }
    EXPECT_EQ(names, (std::vector<std::string>{"PIN dialog", "C_Initialize", "C_OpenSession",
                                               "C_Login", "C_FindObjectsInit", "C_FindObjects",
                                               "C_FindObjectsFinal", "C_SignInit", "C_Sign",
                                               "C_Logout", "C_CloseSession", "C_Finalize"}));
    EXPECT_GE(callOf(operation, "C_Sign").elapsed, 55);
    EXPECT_GE(callOf(operation, "C_Login").elapsed, 25);
    EXPECT_GT(operation.elapsed, 85);
    // The dialog's time is accurate only to a millisecond.
    EXPECT_LE(sum, operation.elapsed + 5);
}

TEST_F(LogOfTheModule, AWrongPinNamesItsCall)
{
    EXPECT_EQ(sign(DialogDriver::entering(L"odd-PIN-0000")), NTE_INTERNAL_ERROR);
    const Operation operation = last("SignHash");
    EXPECT_TRUE(operation.failed());
    EXPECT_EQ(operation.status, 0x8009002DU);
    EXPECT_EQ(callOf(operation, "C_Login").result, "CKR_PIN_INCORRECT");
    EXPECT_FALSE(operation.errors.empty());
}

TEST_F(LogOfTheModule, EachFailingCallIsNamed)
{
    for (const char* name : {"C_OpenSession", "C_FindObjectsInit", "C_SignInit", "C_Sign"}) {
        token.fail(name, CKR_DEVICE_REMOVED);
        EXPECT_EQ(sign(DialogDriver::entering(rightPin)), NTE_INTERNAL_ERROR) << name;
        token.clearFaults();
        const Operation operation = last("SignHash");
        const auto failed = std::ranges::find_if(operation.calls, &tool::TokenCall::failed);
        ASSERT_NE(failed, operation.calls.end()) << name;
        EXPECT_EQ(failed->name, name);
        EXPECT_EQ(failed->result, "CKR_DEVICE_REMOVED");
    }
}

TEST_F(LogOfTheModule, AnExceptionIsNamed)
{
    token.throwFrom("C_Sign");
    EXPECT_EQ(sign(DialogDriver::entering(rightPin)), NTE_INTERNAL_ERROR);
    EXPECT_EQ(callOf(last("SignHash"), "C_Sign").result, "exception");
}

TEST_F(LogOfTheModule, ACancelledDialogFails)
{
    EXPECT_EQ(sign(DialogDriver::cancelling()), NTE_USER_CANCELLED);
    const Operation operation = last("SignHash");
    EXPECT_EQ(operation.status, 0x80090036U);
    ASSERT_EQ(operation.calls.size(), 1U);
    EXPECT_EQ(operation.calls[0].name, "PIN dialog");
    EXPECT_GE(operation.calls[0].elapsed, 0);
}

TEST_F(LogOfTheModule, NothingSecretIsPrinted)
{
    EXPECT_EQ(sign(DialogDriver::entering(rightPin)), ERROR_SUCCESS);
    NCRYPT_SECRET_HANDLE secret = 0;
    {
        const DialogDriver dialog(DialogDriver::entering(rightPin));
        EXPECT_EQ(table()->SecretAgreement(handle(), ec, ec, &secret, 0), ERROR_SUCCESS);
    }
    BYTE key[32];
    DWORD length = 0;
    wchar_t hashName[] = L"SHA256";
    NCryptBuffer buffer{sizeof hashName, KDF_HASH_ALGORITHM, hashName};
    NCryptBufferDesc parameters{NCRYPTBUFFER_VERSION, 1, &buffer};
    EXPECT_EQ(table()->DeriveKey(handle(), secret, BCRYPT_KDF_HASH, &parameters, key, sizeof key,
                                 &length, 0),
              ERROR_SUCCESS);
    table()->FreeSecret(handle(), secret);
    // The scripted token's agreed secrets repeat these bytes.
    const std::string agreed = "C35A17E18DC35A17E18D";
    ASSERT_NE(readFile(logFile()).find(agreed), std::string::npos);

    const auto page = profile.path() / "odd.html";
    const ToolProfile tool;
    std::string printed =
        tool.run({"log", logFile(), "--slow", "0", "--html", narrowPath(page)}).output;
    printed += tool.run({"--json", "log", logFile(), "--slow", "0"}).output;
    printed += readFile(page);
    EXPECT_NE(printed.find("SecretAgreement"), std::string::npos);
    EXPECT_NE(printed.find("DeriveKey"), std::string::npos);
    EXPECT_EQ(printed.find(agreed), std::string::npos);
    EXPECT_EQ(printed.find("odd-PIN"), std::string::npos);
}

TEST_F(LogOfTheModule, RandomCutsAreRead)
{
    EXPECT_EQ(sign(DialogDriver::entering(L"odd-PIN-0000")), NTE_INTERNAL_ERROR);
    const std::string whole = readFile(logFile());
    std::mt19937 random(7391);  // NOLINT(cert-msc51-cpp): a failure must come again
    for (int round = 0; round < 300; ++round) {
        const size_t begin = random() % whole.size();
        const std::string piece = whole.substr(begin, random() % (whole.size() - begin));
        std::vector<Operation> all;
        tool::OperationReader reader(
            [&all](Operation operation) { all.push_back(std::move(operation)); });
        std::istringstream stream(piece);
        size_t count = 0;
        for (std::string line; std::getline(stream, line); ++count)
            reader.addLine(line);
        // At most the first and the last line are incomplete.
        EXPECT_LE(reader.foreignLines(), 2U);
        EXPECT_GE(reader.records() + 2, count);
        reader.finish();
        pageOf(all, "odd");
    }
}

TEST_F(LogOfTheModule, IsReadByTheProgram)
{
    EXPECT_EQ(sign(DialogDriver::entering(L"odd-PIN-0000")), NTE_INTERNAL_ERROR);
    const ToolProfile tool;
    const Json document = tool.json({"log", logFile()}, 0);
    EXPECT_EQ(document["otherLines"], 0);
    EXPECT_EQ(document["failed"].size(), 1U);
    const Json& calls = document["failed"][0]["calls"];
    const auto login =
        std::ranges::find_if(calls, [](const Json& call) { return call["name"] == "C_Login"; });
    ASSERT_NE(login, calls.end());
    EXPECT_EQ((*login)["result"], "CKR_PIN_INCORRECT");
    // The same log, found through the configuration.
    const ChildResult unnamed = runTool({"--profile", narrowPath(profile.path()), "--json", "log"});
    EXPECT_EQ(parsed(unnamed.output)["failed"], document["failed"]);
}

}  // namespace

}  // namespace NV::test
