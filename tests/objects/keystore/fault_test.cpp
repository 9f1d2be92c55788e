// One PKCS#11 call of an operation fails: what the operation still does, logs and answers. A row for
// each call of each operation.

#include <algorithm>

#include "key_fixture.h"

namespace NV::test {

namespace {

struct FaultRow {
    Operation operation;
    const char* failing;
    // Calls that still follow the failing one, the step headings of the whole run, and the one
    // error line.
    const char* cleanUp;
    const char* headings;
    const char* error;
};

std::string shortName(Operation operation)
{
    std::string name = functionOf(operation);
    name = name.substr(name.find("P11") + 3);
    return name.substr(0, name.find("KeyObject")) + name.substr(name.rfind(':') + 1);
}

void PrintTo(const FaultRow& row, std::ostream* out)
{
    *out << shortName(row.operation) << ' ' << row.failing;
}

constexpr const char* closing = "C_CloseSession\nC_Finalize\n";
constexpr const char* loggingOut = "C_Logout\nC_CloseSession\nC_Finalize\n";

using enum Operation;

constexpr FaultRow rows[] = {
    {rsaSign, "C_Initialize", "", "0", "Failed C_Initialize (00000030(CKR_DEVICE_ERROR))"},
    {rsaSign, "C_OpenSession", "C_Finalize\n", "0 1 7",
     "Failed to open session (00000030(CKR_DEVICE_ERROR))"},
    {rsaSign, "C_Login", closing, "0 1 2 6 7",
     "Failed to login the token (00000030(CKR_DEVICE_ERROR))"},
    {rsaSign, "C_FindObjectsInit", loggingOut, "0 1 2 3 5 6 7",
     "Failed to initialize FindObject (00000030(CKR_DEVICE_ERROR))"},
    {rsaSign, "C_FindObjects", loggingOut, "0 1 2 3 5 6 7",
     "Failed to find Object (00000030(CKR_DEVICE_ERROR))"},
    {rsaSign, "C_FindObjectsFinal", loggingOut, "0 1 2 3 5 6 7",
     "Failed to finalize the FindObject (00000030(CKR_DEVICE_ERROR))"},
    {rsaSign, "C_SignInit", loggingOut, "0 1 2 3 4 5 6 7",
     "Failed to initialize Sign Process (00000030(CKR_DEVICE_ERROR))"},
    {rsaSign, "C_Sign", loggingOut, "0 1 2 3 4 5 6 7",
     "Failed to sign Process (00000030(CKR_DEVICE_ERROR))"},
    {rsaSign, "C_Logout", closing, "0 1 2 3 4 5 6 7",
     "Failed to logout the token (00000030(CKR_DEVICE_ERROR))"},
    {rsaSign, "C_CloseSession", "C_Finalize\n", "0 1 2 3 4 5 6 7",
     "Failed to close session (00000030(CKR_DEVICE_ERROR))"},
    {rsaSign, "C_Finalize", "", "0 1 2 3 4 5 6 7",
     "Failed C_Finalize (00000030(CKR_DEVICE_ERROR))"},

    {rsaDecrypt, "C_Initialize", "", "0", "Failed C_Initialize (00000030(CKR_DEVICE_ERROR))"},
    {rsaDecrypt, "C_OpenSession", "C_Finalize\n", "0 1 7",
     "Failed to open session (00000030(CKR_DEVICE_ERROR))"},
    {rsaDecrypt, "C_Login", closing, "0 1 2 6 7",
     "Failed to login the token (00000030(CKR_DEVICE_ERROR))"},
    {rsaDecrypt, "C_FindObjectsInit", loggingOut, "0 1 2 3 5 6 7",
     "Failed to initialize FindObject (00000030(CKR_DEVICE_ERROR))"},
    {rsaDecrypt, "C_FindObjects", loggingOut, "0 1 2 3 5 6 7",
     "Failed to find Object (00000030(CKR_DEVICE_ERROR))"},
    {rsaDecrypt, "C_FindObjectsFinal", loggingOut, "0 1 2 3 5 6 7",
     "Failed to finalize the FindObject (00000030(CKR_DEVICE_ERROR))"},
    {rsaDecrypt, "C_DecryptInit", loggingOut, "0 1 2 3 4 5 6 7",
     "Failed to initialize decrypt, C_DecryptInit() returned (00000030(CKR_DEVICE_ERROR))"},
    {rsaDecrypt, "C_Decrypt", loggingOut, "0 1 2 3 4 5 6 7",
     "Failed to decrypt data, C_Decrypt() returned (00000030(CKR_DEVICE_ERROR))"},
    {rsaDecrypt, "C_Logout", closing, "0 1 2 3 4 5 6 7",
     "Failed to logout the token (00000030(CKR_DEVICE_ERROR))"},
    {rsaDecrypt, "C_CloseSession", "C_Finalize\n", "0 1 2 3 4 5 6 7",
     "Failed to close session (00000030(CKR_DEVICE_ERROR))"},
    {rsaDecrypt, "C_Finalize", "", "0 1 2 3 4 5 6 7",
     "Failed C_Finalize (00000030(CKR_DEVICE_ERROR))"},

    {ecSign, "C_Initialize", "", "0", "Failed C_Initialize (00000030(CKR_DEVICE_ERROR))"},
    {ecSign, "C_OpenSession", "C_Finalize\n", "0 1 5",
     "Failed to open session (00000030(CKR_DEVICE_ERROR))"},
    {ecSign, "C_Login", closing, "0 1 2 6 5",
     "Failed to login the token (00000030(CKR_DEVICE_ERROR))"},
    {ecSign, "C_FindObjectsInit", loggingOut, "0 1 2 3 5 6 5",
     "Failed to initialize FindObject (00000030(CKR_DEVICE_ERROR))"},
    {ecSign, "C_FindObjects", loggingOut, "0 1 2 3 5 6 5",
     "Failed to find Object (00000030(CKR_DEVICE_ERROR))"},
    {ecSign, "C_FindObjectsFinal", loggingOut, "0 1 2 3 5 6 5",
     "Failed to finalize the FindObject (00000030(CKR_DEVICE_ERROR))"},
    {ecSign, "C_SignInit", loggingOut, "0 1 2 3 4 5 6 5",
     "Failed to initialize Sign Process (00000030(CKR_DEVICE_ERROR))"},
    {ecSign, "C_Sign", loggingOut, "0 1 2 3 4 5 6 5",
     "Failed to sign Process (00000030(CKR_DEVICE_ERROR))"},
    {ecSign, "C_Logout", closing, "0 1 2 3 4 5 6 5",
     "Failed to logout the token (00000030(CKR_DEVICE_ERROR))"},
    {ecSign, "C_CloseSession", "C_Finalize\n", "0 1 2 3 4 5 6 5",
     "Failed to close session (00000030(CKR_DEVICE_ERROR))"},
    {ecSign, "C_Finalize", "", "0 1 2 3 4 5 6 5", "Failed C_Finalize (00000030(CKR_DEVICE_ERROR))"},

    {rsaVerify, "C_Initialize", "", "0", "Failed C_Initialize (00000030(CKR_DEVICE_ERROR))"},
    {rsaVerify, "C_OpenSession", "C_Finalize\n", "0 1 5",
     "Failed to open session (00000030(CKR_DEVICE_ERROR))"},
    {rsaVerify, "C_FindObjectsInit", closing, "0 1 2 4 5",
     "Failed to initialize FindObject (00000030(CKR_DEVICE_ERROR))"},
    {rsaVerify, "C_FindObjects", closing, "0 1 2 4 5",
     "Failed to find Object (00000030(CKR_DEVICE_ERROR))"},
    {rsaVerify, "C_FindObjectsFinal", closing, "0 1 2 4 5",
     "Failed to finalize the FindObject (00000030(CKR_DEVICE_ERROR))"},
    {rsaVerify, "C_VerifyInit", closing, "0 1 2 3 4 5",
     "Failed to initialize verify process (00000030(CKR_DEVICE_ERROR))"},
    {rsaVerify, "C_Verify", closing, "0 1 2 3 4 5",
     "Failed to verify Process (00000030(CKR_DEVICE_ERROR))"},
    {rsaVerify, "C_CloseSession", "C_Finalize\n", "0 1 2 3 4 5",
     "Failed to close session (00000030(CKR_DEVICE_ERROR))"},
    {rsaVerify, "C_Finalize", "", "0 1 2 3 4 5", "Failed C_Finalize (00000030(CKR_DEVICE_ERROR))"},

    {rsaEncrypt, "C_Initialize", "", "0", "Failed C_Initialize (00000030(CKR_DEVICE_ERROR))"},
    {rsaEncrypt, "C_OpenSession", "C_Finalize\n", "0 1 5",
     "Failed to open session (00000030(CKR_DEVICE_ERROR))"},
    {rsaEncrypt, "C_FindObjectsInit", closing, "0 1 2 4 5",
     "Failed to initialize FindObject (00000030(CKR_DEVICE_ERROR))"},
    {rsaEncrypt, "C_FindObjects", closing, "0 1 2 4 5",
     "Failed to find Object (00000030(CKR_DEVICE_ERROR))"},
    {rsaEncrypt, "C_FindObjectsFinal", closing, "0 1 2 4 5",
     "Failed to finalize the FindObject (00000030(CKR_DEVICE_ERROR))"},
    {rsaEncrypt, "C_EncryptInit", closing, "0 1 2 3 4 5",
     "Failed to initialize encrypt, C_EncryptInit() returned (00000030(CKR_DEVICE_ERROR))"},
    {rsaEncrypt, "C_Encrypt", closing, "0 1 2 3 4 5",
     "Failed to encrypt data, C_Encrypt() returned (00000030(CKR_DEVICE_ERROR))"},
    {rsaEncrypt, "C_CloseSession", "C_Finalize\n", "0 1 2 3 4 5",
     "Failed to close session (00000030(CKR_DEVICE_ERROR))"},
    {rsaEncrypt, "C_Finalize", "", "0 1 2 3 4 5", "Failed C_Finalize (00000030(CKR_DEVICE_ERROR))"},

    {ecVerify, "C_Initialize", "", "0", "Failed C_Initialize (00000030(CKR_DEVICE_ERROR))"},
    {ecVerify, "C_OpenSession", "C_Finalize\n", "0 1 5",
     "Failed to open session (00000030(CKR_DEVICE_ERROR))"},
    {ecVerify, "C_FindObjectsInit", closing, "0 1 2 4 5",
     "Failed to initialize FindObject (00000030(CKR_DEVICE_ERROR))"},
    {ecVerify, "C_FindObjects", closing, "0 1 2 4 5",
     "Failed to find Object (00000030(CKR_DEVICE_ERROR))"},
    {ecVerify, "C_FindObjectsFinal", closing, "0 1 2 4 5",
     "Failed to finalize the FindObject (00000030(CKR_DEVICE_ERROR))"},
    {ecVerify, "C_VerifyInit", closing, "0 1 2 3 4 5",
     "Failed to initialize verify process (00000030(CKR_DEVICE_ERROR))"},
    {ecVerify, "C_Verify", closing, "0 1 2 3 4 5",
     "Failed to verify Process (00000030(CKR_DEVICE_ERROR))"},
    {ecVerify, "C_CloseSession", "C_Finalize\n", "0 1 2 3 4 5",
     "Failed to close session (00000030(CKR_DEVICE_ERROR))"},
    {ecVerify, "C_Finalize", "", "0 1 2 3 4 5", "Failed C_Finalize (00000030(CKR_DEVICE_ERROR))"},
};

// The work calls of each operation, between the common beginning and end.
const char* workCalls(Operation operation)
{
    switch (operation) {
    case rsaSign:
    case ecSign:
        return "C_SignInit\nC_Sign\n";
    case rsaDecrypt:
        return "C_DecryptInit\nC_Decrypt\n";
    case rsaEncrypt:
        return "C_EncryptInit\nC_Encrypt\n";
    default:
        return "C_VerifyInit\nC_Verify\n";
    }
}

bool logsIn(Operation operation)
{
    return operation == rsaSign || operation == rsaDecrypt || operation == ecSign;
}

std::string wholeSequence(Operation operation)
{
    const bool login = logsIn(operation);
    return std::string("C_Initialize\nC_OpenSession\n") + (login ? "C_Login\n" : "") +
           "C_FindObjectsInit\nC_FindObjects\nC_FindObjectsFinal\n" + workCalls(operation) +
           (login ? "C_Logout\n" : "") + "C_CloseSession\nC_Finalize\n";
}

// The sequence up to the failing call, that one included.
std::string sequenceTo(Operation operation, const std::string& failing)
{
    const std::string whole = wholeSequence(operation);
    return whole.substr(0, whole.find(failing + "\n") + failing.size() + 1);
}

// Whether the call that produces output was reached and did not fail itself.
bool producesOutput(const FaultRow& row)
{
    if (row.operation == rsaVerify || row.operation == ecVerify)
        return false;
    const std::string work = workCalls(row.operation);
    const std::string last = work.substr(work.find('\n') + 1);
    return last != row.failing + std::string("\n") &&
           sequenceTo(row.operation, row.failing).find(last) != std::string::npos;
}

class FaultTest : public KeyTest, public testing::WithParamInterface<FaultRow> {
protected:
    Run good()
    {
        const Operation operation = GetParam().operation;
        Run what{.operation = operation, .flags = 0x2};
        if (operation == rsaVerify)
            what.signature = signatureOf(CKM_RSA_PKCS, what.input, 256);
        if (operation == ecVerify)
            what.signature = signatureOf(CKM_ECDSA, what.input, 64);
        if (operation == rsaDecrypt)
            what.input = run({.operation = rsaEncrypt, .flags = 0x2}).output;
        forget();
        return what;
    }
};

}  // namespace

TEST_P(FaultTest, cleansUpTellsOneErrorAndAnswersInternalError)
{
    const FaultRow& row = GetParam();
    const Run what = good();
    token.fail(row.failing, CKR_DEVICE_ERROR);
    const Result result = run(what);
    EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR}, result.status);
    EXPECT_EQ(sequenceTo(row.operation, row.failing) + row.cleanUp, joined(token.callNames()));
    const LogLines all = log.takeLines();
    const LogLines lines = ofFunction(all, functionOf(row.operation));
    EXPECT_EQ(row.error + std::string("\n"), messages(all, "ERR"));
    EXPECT_EQ(row.error + std::string("\n"), messages(lines, "ERR"));
    EXPECT_EQ(row.headings, headings(lines));
    EXPECT_EQ("LEAVE", lines.back().message);
    const bool written = result.output != Bytes(result.output.size(), 0xEE);
    EXPECT_EQ(producesOutput(row), written);
    EXPECT_EQ(0xEEU, result.length);
}

TEST_P(FaultTest, theNextOperationSucceeds)
{
    const Run what = good();
    token.fail(GetParam().failing, CKR_DEVICE_ERROR, 1);
    run(what);
    if (token.initialised()) {
        // The failing call was the one that ends the library's use.
        CK_FUNCTION_LIST exports = token.exports();
        EXPECT_EQ(CKR_OK, exports.C_Finalize(nullptr));
    }
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, run(what).status);
}

INSTANTIATE_TEST_SUITE_P(Calls, FaultTest, testing::ValuesIn(rows), [](const auto& row) {
    std::string name = row.param.failing;
    std::erase(name, '_');
    return shortName(row.param.operation) + name;
});

// The table has a row for each call of each sequence.
TEST(FaultTable, isComplete)
{
    for (const Operation operation :
         {rsaSign, rsaVerify, rsaEncrypt, rsaDecrypt, ecSign, ecVerify}) {
        std::string named;
        for (const std::string call :
             {"C_Initialize", "C_OpenSession", "C_Login", "C_FindObjectsInit", "C_FindObjects",
              "C_FindObjectsFinal", "C_SignInit", "C_Sign", "C_VerifyInit", "C_Verify",
              "C_EncryptInit", "C_Encrypt", "C_DecryptInit", "C_Decrypt", "C_Logout",
              "C_CloseSession", "C_Finalize"}) {
            const bool present = std::ranges::any_of(rows, [&](const FaultRow& row) {
                return row.operation == operation && call == row.failing;
            });
            named += present ? call + "\n" : "";
        }
        EXPECT_EQ(wholeSequence(operation), named);
    }
}

}  // namespace NV::test
