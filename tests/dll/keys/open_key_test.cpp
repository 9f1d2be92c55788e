// Opening, freeing and listing keys.

#include <cstdio>

#include "module_fixture.h"
#include "trace_file.h"

namespace NV::test {

namespace {

class OpenKeyTest : public ServedKeysTest {
protected:
    // One call of EnumKeys; "01AB 1.2.840.113549.1.1.1 0 0", or the status in hexadecimal.
    std::string next(void** state, const wchar_t* scope = nullptr, DWORD flags = 0)
    {
        NCryptKeyName* record = nullptr;
        const SECURITY_STATUS result = table()->EnumKeys(handle(), scope, &record, state, flags);
        if (result != ERROR_SUCCESS) {
            EXPECT_EQ(nullptr, record);
            char text[20];
            std::snprintf(text, sizeof text, "%08x", static_cast<unsigned>(result));
            return text;
        }
        const std::wstring name = record->pszName;
        const std::wstring algorithm = record->pszAlgid;
        std::string text = std::string(name.begin(), name.end()) + " " +
                           std::string(algorithm.begin(), algorithm.end()) + " " +
                           std::to_string(record->dwLegacyKeySpec) + " " +
                           std::to_string(record->dwFlags);
        EXPECT_EQ(status(ERROR_SUCCESS), table()->FreeBuffer(record));
        return text;
    }
};

constexpr const char* rsaRecord = "01AB 1.2.840.113549.1.1.1 0 0";
constexpr const char* ecRecord = "0256 1.2.840.10045.2.1 0 0";
constexpr const char* noMoreItems = "8009002a";

}  // namespace

TEST_F(OpenKeyTest, openingIsTraced)
{
    NCRYPT_KEY_HANDLE key = 0;
    EXPECT_EQ(status(ERROR_SUCCESS), table()->OpenKey(handle(), &key, L"01AB", 0, 0));
    EXPECT_NE(0U, key);
    const LogLines lines = takeLines();
    expectTrace(ofFunction(lines, "NV::Provider::OpenKey"), "dll/keys/open_key/opening_is_traced");
    EXPECT_EQ("TRC NVKSPOpenKey:ENTER", render(lines.front()));
    EXPECT_EQ("TRC NVKSPOpenKey:LEAVE", render(lines.back()));
    EXPECT_TRUE(token.calls().empty());
}

TEST_F(OpenKeyTest, optionsAreOnlyNoted)
{
    NCRYPT_KEY_HANDLE key = 0;
    EXPECT_EQ(status(ERROR_SUCCESS), table()->OpenKey(handle(), &key, L"01AB", 3, 0x40));
    EXPECT_EQ("Enabled Silent Option\nEnabled AT_SIGNATURE Option\nEnabled AT_KEYEXCHANGE Option\n",
              messages(linesOf("NV::Provider::OpenKey"), "DBG"));
    EXPECT_EQ(status(ERROR_SUCCESS), table()->OpenKey(handle(), &key, L"01AB", 2, 0xFFFFFFBF));
    EXPECT_EQ("Enabled AT_SIGNATURE Option\n", messages(linesOf("NV::Provider::OpenKey"), "DBG"));
    EXPECT_EQ(status(ERROR_SUCCESS), table()->OpenKey(handle(), &key, L"01AB", 0xFFFFFFFD, 0));
    EXPECT_EQ("Enabled AT_KEYEXCHANGE Option\n", messages(linesOf("NV::Provider::OpenKey"), "DBG"));
}

TEST_F(OpenKeyTest, nullArgumentsAreLoggedAndNothingIsOpened)
{
    NCRYPT_KEY_HANDLE key = 0xEE;
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), table()->OpenKey(handle(), nullptr, L"01AB", 3, 0x40));
    LogLines lines = takeLines();
    EXPECT_EQ("Invalid Argument: phKey is null\n", messages(lines, "ERR"));
    EXPECT_EQ("", messages(lines, "DBG"));
    EXPECT_TRUE(ofFunction(lines, "NV::KeyStore::open").empty());
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), table()->OpenKey(handle(), &key, nullptr, 0, 0));
    EXPECT_EQ("Invalid Argument: pszKeyName is null\n", messages(takeLines(), "ERR"));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), table()->OpenKey(handle(), nullptr, nullptr, 0, 0));
    EXPECT_EQ("Invalid Argument: phKey is null\nInvalid Argument: pszKeyName is null\n",
              messages(takeLines(), "ERR"));
    EXPECT_EQ(0xEEU, key);
}

TEST_F(OpenKeyTest, anUnknownNameIsAnInvalidHandle)
{
    for (const wchar_t* name : {L"01ab", L"01A", L"01AB ", L"", L"77"}) {
        NCRYPT_KEY_HANDLE key = 0xEE;
        EXPECT_EQ(status(NTE_INVALID_HANDLE), table()->OpenKey(handle(), &key, name, 0, 0));
        EXPECT_EQ(0xEEU, key);
        const LogLines lines = takeLines();
        EXPECT_EQ("Failed to open key\n",
                  messages(ofFunction(lines, "NV::Provider::OpenKey"), "ERR"));
        EXPECT_EQ(1U, ofLevel(ofFunction(lines, "NV::KeyStore::open"), "ERR").size());
    }
}

TEST_F(OpenKeyTest, aVeryLongNameIsUnknown)
{
    NCRYPT_KEY_HANDLE key = 0xEE;
    EXPECT_EQ(status(NTE_INVALID_HANDLE),
              table()->OpenKey(handle(), &key, std::wstring(20000, L'A').c_str(), 0, 0));
    EXPECT_EQ(0xEEU, key);
}

TEST_F(OpenKeyTest, freeingIsTracedWithTheLow32BitsOfTheHandle)
{
    EXPECT_EQ(status(ERROR_SUCCESS), table()->FreeKey(handle(), rsa));
    char printed[60];
    std::snprintf(printed, sizeof printed, "TRC Success to free the key(0x%0x)\n",
                  static_cast<unsigned>(rsa));
    EXPECT_EQ("TRC ENTER\nTRC ARG[0]:hKey=PTR\n" + std::string(printed) +
                  "TRC STATUS=0x0, ELAPSED:#(ms)\nTRC LEAVE\n",
              levelsAndMessages(linesOf("NV::Provider::FreeKey")));
}

TEST_F(OpenKeyTest, freeingNullIsAnInvalidHandleWithoutALook)
{
    EXPECT_EQ(status(NTE_INVALID_HANDLE), table()->FreeKey(handle(), 0));
    const LogLines lines = takeLines();
    EXPECT_EQ("", messages(lines, "ERR"));
    EXPECT_TRUE(ofFunction(lines, "NV::KeyStore::close").empty());
}

TEST_F(OpenKeyTest, freeingAnUnknownOrFreedHandleFails)
{
    EXPECT_EQ(status(NTE_INVALID_HANDLE), table()->FreeKey(handle(), 0x7712));
    EXPECT_EQ("Failed to free the key(0x7712)\n",
              messages(linesOf("NV::Provider::FreeKey"), "ERR"));
    EXPECT_EQ(status(ERROR_SUCCESS), table()->FreeKey(handle(), rsa));
    EXPECT_EQ(status(NTE_INVALID_HANDLE), table()->FreeKey(handle(), rsa));
    EXPECT_EQ(status(NTE_INVALID_HANDLE), table()->FreeKey(handle(), handle()));
    EXPECT_EQ(status(ERROR_SUCCESS), table()->FreeKey(handle(), ec));
}

TEST_F(OpenKeyTest, handlesBelongToTheirProvider)
{
    OpenedProvider other(table());
    const NCRYPT_KEY_HANDLE key = other.openKey(L"01AB");
    EXPECT_EQ(status(NTE_INVALID_HANDLE), table()->FreeKey(handle(), key));
    EXPECT_EQ(status(ERROR_SUCCESS), table()->FreeKey(other.handle(), key));
}

TEST_F(OpenKeyTest, enumerationGivesEachKeyOnceInTheOrderOfNames)
{
    void* state = nullptr;
    EXPECT_EQ(rsaRecord, next(&state));
    void* const first = state;
    EXPECT_NE(nullptr, first);
    EXPECT_EQ(ecRecord, next(&state));
    EXPECT_EQ(first, state);
    EXPECT_EQ(noMoreItems, next(&state));
    EXPECT_EQ(noMoreItems, next(&state));
    EXPECT_EQ(status(ERROR_SUCCESS), table()->FreeBuffer(state));
    EXPECT_TRUE(token.calls().empty());
}

TEST_F(OpenKeyTest, enumerationIsTraced)
{
    void* state = nullptr;
    next(&state, L"scope", 0x20);
    expectTrace(linesOf("NV::Provider::EnumKeys"), "dll/keys/open_key/enumeration_is_traced");
    next(&state);
    takeLines();
    next(&state);
    expectTrace(linesOf("NV::Provider::EnumKeys"), "dll/keys/open_key/enumeration_is_traced_2");
    table()->FreeBuffer(state);
}

TEST_F(OpenKeyTest, enumerationRefusesNullArguments)
{
    NCryptKeyName* record = nullptr;
    void* state = nullptr;
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              table()->EnumKeys(handle(), nullptr, nullptr, &state, 0));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              table()->EnumKeys(handle(), nullptr, &record, nullptr, 0));
    EXPECT_EQ(nullptr, state);
    EXPECT_EQ(nullptr, record);
}

TEST_F(OpenKeyTest, anEntryLeftByAnUnknownNameIsNotFoundAndDoesNotAdvance)
{
    NCRYPT_KEY_HANDLE key = 0;
    table()->OpenKey(handle(), &key, L"0200", 0, 0);
    void* state = nullptr;
    EXPECT_EQ(rsaRecord, next(&state));
    takeLines();
    for (int time = 0; time < 2; ++time) {
        EXPECT_EQ("80090011", next(&state));
        const LogLines lines = linesOf("NV::Provider::EnumKeys");
        EXPECT_EQ("Not Found key\n", messages(lines, "ERR"));
        EXPECT_EQ("Enum keys[1/3]", lines.at(6).message);
    }
    table()->FreeBuffer(state);
}

// Positions count from the first name, no matter what was there when the enumeration began.
TEST_F(OpenKeyTest, anUnknownNameOpenedMeanwhileShiftsTheKeysBehindIt)
{
    NCRYPT_KEY_HANDLE key = 0;
    void* state = nullptr;
    EXPECT_EQ(rsaRecord, next(&state));
    table()->OpenKey(handle(), &key, L"0000", 0, 0);
    takeLines();
    EXPECT_EQ(rsaRecord, next(&state));
    EXPECT_EQ("Enum keys[1/3]", linesOf("NV::Provider::EnumKeys").at(6).message);
    table()->OpenKey(handle(), &key, L"0200", 0, 0);
    EXPECT_EQ("80090011", next(&state));
    table()->OpenKey(handle(), &key, L"00", 0, 0);
    EXPECT_EQ(rsaRecord, next(&state));
    EXPECT_EQ("80090011", next(&state));
    table()->FreeBuffer(state);
}

TEST_F(OpenKeyTest, aFirstCallOnAnEmptyEntryHandsOutNoState)
{
    NCRYPT_KEY_HANDLE key = 0;
    table()->OpenKey(handle(), &key, L"", 0, 0);
    void* state = nullptr;
    EXPECT_EQ("80090011", next(&state));
    EXPECT_EQ(nullptr, state);
}

TEST_F(OpenKeyTest, twoEnumerationsDoNotDisturbEachOther)
{
    void* first = nullptr;
    void* second = nullptr;
    EXPECT_EQ(rsaRecord, next(&first));
    EXPECT_EQ(rsaRecord, next(&second));
    EXPECT_EQ(ecRecord, next(&first));
    EXPECT_EQ(ecRecord, next(&second));
    table()->FreeBuffer(first);
    table()->FreeBuffer(second);
}

class EmptyTokenTest : public ModuleTest {};

TEST_F(EmptyTokenTest, enumerationWithoutKeysEndsAtOnceAndHandsOutNoState)
{
    start();
    NCryptKeyName* record = nullptr;
    void* state = nullptr;
    EXPECT_EQ(status(NTE_NO_MORE_ITEMS), table()->EnumKeys(handle(), nullptr, &record, &state, 0));
    EXPECT_EQ(nullptr, record);
    EXPECT_EQ(nullptr, state);
}

}  // namespace NV::test
