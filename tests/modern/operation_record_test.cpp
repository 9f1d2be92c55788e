// The log at each level, and the record of an operation's end (M21), through the module's table.

#include <cstdio>
#include <string>
#include <string_view>

#include "dialog_driver.h"
#include "module_fixture.h"

namespace NV::test {
namespace {

class OperationRecords : public ModernKeysTest {
protected:
    OperationRecords() { begin("INFO"); }

    // Opens the keys again with this level.
    void begin(const std::string& level)
    {
        provider.reset();
        module.reset();
        profile.writeModernConfigFor(ScriptedToken::widePath(), "logLevel=" + level + "\n");
        start();
        rsa = openKey(L"01AB");
        ec = openKey(L"0256");
        forget();
    }

    // The records of the entry points, and the levels of all records.
    std::string written()
    {
        std::string text;
        levels.clear();
        for (const LogLine& line : takeLines()) {
            if (levels.find(line.level) == std::string::npos)
                levels += line.level + " ";
            if (line.function.starts_with("NVKSP"))
                text += line.level + " " + line.function + ":" + masked(line.message) + "\n";
        }
        return text;
    }

    SECURITY_STATUS verify()
    {
        Bytes signature = signatureOf(CKM_ECDSA, hash, 64);
        return table()->VerifySignature(handle(), ec, nullptr, hash.data(), 32, signature.data(),
                                        64, 0);
    }
    SECURITY_STATUS sign(std::wstring_view pin)
    {
        const DialogDriver dialog(DialogDriver::entering(std::wstring(pin)));
        Bytes signature(64);
        DWORD length = 0;
        return table()->SignHash(handle(), ec, nullptr, hash.data(), 32, signature.data(), 64,
                                 &length, 0);
    }

    std::string levels;
};

// The statuses of failed token calls are another row's; here only what the record makes of them.
std::string statusText(SECURITY_STATUS status)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", static_cast<unsigned>(status));
    return text;
}

TEST_F(OperationRecords, oneForEachOperationThatDoesSomething)
{
    EXPECT_EQ(ERROR_SUCCESS, verify());
    EXPECT_EQ("INF NVKSPVerifySignature:DONE, STATUS=0x0, ELAPSED:#(ms), KEY=0256\n", written());
    EXPECT_EQ("INF ", levels);
    EXPECT_FALSE(encryptPkcs1(someBytes(16)).empty());
    EXPECT_EQ("INF NVKSPEncrypt:DONE, STATUS=0x0, ELAPSED:#(ms), KEY=01AB\n", written());
    const NCRYPT_KEY_HANDLE again = openKey(L"01AB");
    EXPECT_EQ("INF NVKSPOpenKey:DONE, STATUS=0x0, ELAPSED:#(ms), KEY=01AB\n", written());
    DWORD length = 0;
    EXPECT_EQ(ERROR_SUCCESS, table()->ExportKey(handle(), again, 0, BCRYPT_PUBLIC_KEY_BLOB, nullptr,
                                                nullptr, 0, &length, 0));
    EXPECT_EQ("INF NVKSPExportKey:DONE, STATUS=0x0, ELAPSED:#(ms), KEY=01AB\n", written());
    EXPECT_EQ(ERROR_SUCCESS, table()->FreeKey(handle(), again));
    EXPECT_EQ("INF NVKSPFreeKey:DONE, STATUS=0x0, ELAPSED:#(ms), KEY=01AB\n", written());
    table()->DeriveKey(handle(), 1, L"ODD", nullptr, nullptr, 0, &length, 0);
    EXPECT_TRUE(written().starts_with("INF NVKSPDeriveKey:DONE, STATUS=0x80090027"));
    table()->FreeSecret(handle(), 1);
    EXPECT_EQ("INF NVKSPFreeSecret:DONE, STATUS=0x80090026, ELAPSED:#(ms)\n", written());
    table()->ImportKey(handle(), 0, nullptr, nullptr, nullptr, nullptr, 0, 0);
    EXPECT_EQ("INF NVKSPImportKey:DONE, STATUS=0x80090027, ELAPSED:#(ms)\n", written());
    table()->SecretAgreement(handle(), 0, 0, nullptr, 0);
    EXPECT_EQ("INF NVKSPSecretAgreement:DONE, STATUS=0x80090027, ELAPSED:#(ms)\n", written());
    provider.reset();
    EXPECT_EQ("INF NVKSPFreeProvider:DONE, STATUS=0x0, ELAPSED:#(ms)\n", written());
    provider.emplace(*module);
    EXPECT_EQ("INF NVKSPOpenProvider:DONE, STATUS=0x0, ELAPSED:#(ms)\n", written());
}

TEST_F(OperationRecords, noneForAnswers)
{
    DWORD length = 0;
    table()->GetKeyProperty(handle(), rsa, NCRYPT_NAME_PROPERTY, nullptr, 0, &length, 0);
    table()->GetProviderProperty(handle(), NCRYPT_NAME_PROPERTY, nullptr, 0, &length, 0);
    table()->IsAlgSupported(handle(), L"RSA", 0);
    table()->FreeBuffer(nullptr);
    table()->DeleteKey(handle(), rsa, 0);
    table()->FinalizeKey(handle(), rsa, 0);
    table()->PromptUser(handle(), rsa, nullptr, 0);
    EXPECT_EQ("", written());
}

TEST_F(OperationRecords, withTheFirstFailureOfTheToken)
{
    token.fail("C_Verify", CKR_DEVICE_ERROR);
    token.fail("C_CloseSession", CKR_SESSION_HANDLE_INVALID);
    const SECURITY_STATUS status = verify();
    EXPECT_NE(ERROR_SUCCESS, status);
    EXPECT_EQ("INF NVKSPVerifySignature:DONE, STATUS=" + statusText(status) +
                  ", ELAPSED:#(ms), RESULT=CKR_DEVICE_ERROR, KEY=0256\n",
              written());
    token.clearFaults();
    EXPECT_EQ(ERROR_SUCCESS, verify());
    EXPECT_EQ("INF NVKSPVerifySignature:DONE, STATUS=0x0, ELAPSED:#(ms), KEY=0256\n", written());
}

// What made it begin again does not tell why it failed.
TEST_F(OperationRecords, withTheFirstFailureAfterItHasBegunAgain)
{
    token.fail("C_OpenSession", CKR_CRYPTOKI_NOT_INITIALIZED, 1);
    token.fail("C_Verify", CKR_DEVICE_ERROR);
    verify();
    EXPECT_NE(std::string::npos, written().find(", RESULT=CKR_DEVICE_ERROR, KEY=0256\n"));
    token.clearFaults();
    token.fail("C_OpenSession", CKR_CRYPTOKI_NOT_INITIALIZED);
    verify();
    EXPECT_NE(std::string::npos,
              written().find(", RESULT=CKR_CRYPTOKI_NOT_INITIALIZED, KEY=0256\n"));
    token.clearFaults();
    token.fail("C_OpenSession", CKR_CRYPTOKI_NOT_INITIALIZED, 1);
    token.fail("C_Initialize", CKR_DEVICE_REMOVED, 1);
    verify();
    EXPECT_NE(std::string::npos,
              written().find(", RESULT=CKR_CRYPTOKI_NOT_INITIALIZED, KEY=0256\n"));
}

TEST_F(OperationRecords, withAResultThatHasNoName)
{
    token.fail("C_Verify", 0x80001234);
    verify();
    EXPECT_NE(std::string::npos, written().find(", RESULT=0x80001234, KEY=0256\n"));
}

TEST_F(OperationRecords, ofAWrongPin)
{
    EXPECT_EQ(ERROR_SUCCESS, sign(std::wstring(kPin.begin(), kPin.end())));
    EXPECT_EQ("INF NVKSPSignHash:DONE, STATUS=0x0, ELAPSED:#(ms), KEY=0256\n", written());
    const SECURITY_STATUS status = sign(L"wrong-pin");
    EXPECT_EQ("INF NVKSPSignHash:DONE, STATUS=" + statusText(status) +
                  ", ELAPSED:#(ms), RESULT=CKR_PIN_INCORRECT, KEY=0256\n",
              written());
    EXPECT_NE(std::string::npos, levels.find("ERR"));
}

TEST_F(OperationRecords, ofAnOpeningThatFailed)
{
    provider.reset();
    written();
    for (const char* call : {"C_Initialize", "C_GetInfo", "C_GetSlotList"}) {
        token.fail(call, CKR_DEVICE_REMOVED);
        NCRYPT_PROV_HANDLE opened = 0;
        EXPECT_EQ(NTE_INTERNAL_ERROR, table()->OpenProvider(&opened, L"Norvanta", 0));
        EXPECT_EQ("INF NVKSPOpenProvider:DONE, STATUS=0x8009002d, ELAPSED:#(ms), "
                  "RESULT=CKR_DEVICE_REMOVED\n",
                  written())
            << call;
        token.clearFaults();
    }
}

// However often opening initializes the library.
TEST_F(OperationRecords, ofAnOpeningWhoseNthInitializationFailed)
{
    size_t struck = 0;
    provider.reset();
    forget();
    for (const uint32_t nth : {1U, 2U, 3U}) {
        token.takeStruckFaults();
        token.fail("C_Initialize", CKR_DEVICE_REMOVED, nth);
        NCRYPT_PROV_HANDLE opened = 0;
        const SECURITY_STATUS status = table()->OpenProvider(&opened, L"Norvanta", 0);
        token.clearFaults();
        const std::string record = written();
        if (token.takeStruckFaults().empty()) {
            EXPECT_EQ(ERROR_SUCCESS, table()->FreeProvider(opened));
            forget();
            continue;
        }
        ++struck;
        EXPECT_EQ(NTE_INTERNAL_ERROR, status);
        EXPECT_NE(std::string::npos, record.find(", RESULT=CKR_DEVICE_REMOVED\n")) << record;
    }
    EXPECT_LT(0U, struck);
}

TEST_F(OperationRecords, ofAnUnknownHandleAndAnUnknownName)
{
    table()->FreeKey(0x1234, rsa);
    EXPECT_EQ("INF NVKSPFreeKey:DONE, STATUS=0x80090026, ELAPSED:#(ms)\n", written());
    NCRYPT_KEY_HANDLE opened = 0;
    const SECURITY_STATUS status = table()->OpenKey(handle(), &opened, L"no\nkey", 0, 0);
    EXPECT_EQ("INF NVKSPOpenKey:DONE, STATUS=" + statusText(status) +
                  ", ELAPSED:#(ms), KEY=no?key\n",
              written());
}

TEST_F(OperationRecords, noneAboveInfo)
{
    for (const char* level : {"WARN", "ERROR", "SEVERE"}) {
        begin(level);
        verify();
        EXPECT_EQ("", written()) << level;
        EXPECT_EQ("", levels) << level;
    }
    begin("ERROR");
    token.fail("C_Verify", CKR_DEVICE_ERROR);
    verify();
    written();
    EXPECT_EQ("ERR ", levels);
}

TEST_F(OperationRecords, besideTheTrace)
{
    begin("TRACE");
    EXPECT_EQ(ERROR_SUCCESS, verify());
    EXPECT_EQ("TRC NVKSPVerifySignature:ENTER\nTRC NVKSPVerifySignature:LEAVE\n"
              "INF NVKSPVerifySignature:DONE, STATUS=0x0, ELAPSED:#(ms), KEY=0256\n",
              written());
}

// Classic: no record, whatever the level, and everything is written.
TEST(ClassicRecords, areThoseOfTheTrace)
{
    ScriptedToken token;
    const Profile profile;
    profile.writeConfigFor(ScriptedToken::widePath());
    writeFile(profile.configFile(), readFile(profile.configFile()) + "logLevel=ERROR\n");
    const ProviderModule module;
    const OpenedProvider provider(module);
    EXPECT_FALSE(ofLevel(profile.log(), "TRC").empty());
    for (const LogLine& line : profile.log())
        EXPECT_FALSE(line.message.starts_with("DONE")) << line.raw;
}

}  // namespace
}  // namespace NV::test
