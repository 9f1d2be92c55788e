// M9 and M10: names that no key has, and the list of keys.

#include "module_fixture.h"

namespace NV::test {

namespace {

class ModernListTest : public ModernModuleTest {
protected:
    // A key with a certificate, named by the number.
    void serve(CK_BYTE id, const char* certificate)
    {
        token.addCertificate(Bytes{id}, certificateDer(certificate));
        token.addRsaKeyPair({id}, 2048);  // any public key object
    }

    // "01 RSA 0 0" a key, a line each.
    std::string listed()
    {
        std::string text;
        void* state = nullptr;
        NCryptKeyName* record = nullptr;
        while (table()->EnumKeys(handle(), nullptr, &record, &state, 0) == ERROR_SUCCESS) {
            const std::wstring line =
                record->pszName + std::wstring(L" ") + record->pszAlgid + L" ";
            text += std::string(line.begin(), line.end()) +
                    std::to_string(record->dwLegacyKeySpec) + " " +
                    std::to_string(record->dwFlags) + "\n";
            EXPECT_EQ(status(ERROR_SUCCESS), table()->FreeBuffer(record));
        }
        if (state != nullptr)
            table()->FreeBuffer(state);
        return text;
    }
};

using ModernNamesTest = ModernKeysTest;

}  // namespace

TEST_F(ModernNamesTest, anUnknownNameIsABadKeysetAndLeavesNothingBehind)
{
    for (const std::wstring& name :
         {std::wstring(L"01ab"), std::wstring(L"01A"), std::wstring(L"01AB "), std::wstring(),
          std::wstring(L"0000"), std::wstring(L"0200"), std::wstring(20000, L'A')}) {
        for (int time = 0; time < 2; ++time) {
            NCRYPT_KEY_HANDLE key = 0xEE;
            EXPECT_EQ(status(NTE_BAD_KEYSET), table()->OpenKey(handle(), &key, name.c_str(), 0, 0));
            EXPECT_EQ(0xEEU, key);
        }
    }
    takeLines();
    void* state = nullptr;
    for (const wchar_t* name : {L"01AB", L"0256"}) {
        NCryptKeyName* record = nullptr;
        ASSERT_EQ(status(ERROR_SUCCESS), table()->EnumKeys(handle(), nullptr, &record, &state, 0));
        EXPECT_STREQ(name, record->pszName);
        table()->FreeBuffer(record);
    }
    EXPECT_TRUE(hasLine(takeLines(), "TRC NV::Provider::EnumKeys:Enum keys[1/2]"));
    NCryptKeyName* record = nullptr;
    EXPECT_EQ(status(NTE_NO_MORE_ITEMS), table()->EnumKeys(handle(), nullptr, &record, &state, 0));
    table()->FreeBuffer(state);
}

TEST_F(ModernNamesTest, anUnknownNameIsLogged)
{
    NCRYPT_KEY_HANDLE key = 0;
    EXPECT_EQ(status(NTE_BAD_KEYSET), table()->OpenKey(handle(), &key, L"77", 0, 0));
    EXPECT_EQ("Failed to open the key because Not Found KeyId = 77\nFailed to open key\n",
              messages(takeLines(), "ERR"));
}

TEST_F(ModernNamesTest, wrongArgumentsAreRefused)
{
    NCRYPT_KEY_HANDLE key = 0xEE;
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), table()->OpenKey(handle(), nullptr, L"77", 0, 0));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), table()->OpenKey(handle(), &key, nullptr, 0, 0));
    EXPECT_EQ(0xEEU, key);
    NCryptKeyName* record = nullptr;
    void* state = nullptr;
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              table()->EnumKeys(handle(), nullptr, nullptr, &state, 0));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              table()->EnumKeys(handle(), nullptr, &record, nullptr, 0));
    EXPECT_EQ(nullptr, state);
    EXPECT_EQ(nullptr, record);
}

TEST_F(ModernListTest, aKeyIsListedWithTheNameOfItsAlgorithm)
{
    serve(0x01, "rsa2048");
    serve(0x02, "p256");
    serve(0x03, "p384");
    serve(0x04, "p521");
    serve(0x05, "secp256k1");
    start();
    EXPECT_EQ("01 RSA 0 0\n02 ECDSA_P256 0 0\n03 ECDSA_P384 0 0\n04 ECDSA_P521 0 0\n"
              "05 ECDSA 0 0\n",
              listed());
    EXPECT_EQ("01 RSA 0 0\n02 ECDSA_P256 0 0\n03 ECDSA_P384 0 0\n04 ECDSA_P521 0 0\n"
              "05 ECDSA 0 0\n",
              listed());
}

// The caller releases the one block; the names are behind the record in it.
TEST_F(ModernListTest, recordAndNamesAreOneBlock)
{
    serve(0x01, "p256");
    start();
    void* state = nullptr;
    NCryptKeyName* record = nullptr;
    ASSERT_EQ(status(ERROR_SUCCESS), table()->EnumKeys(handle(), nullptr, &record, &state, 0));
    const auto* behind = reinterpret_cast<const wchar_t*>(record + 1);
    EXPECT_EQ(behind, record->pszName);
    EXPECT_EQ(behind + 3, record->pszAlgid);
    table()->FreeBuffer(record);
    table()->FreeBuffer(state);
}

TEST_F(ModernListTest, withoutKeysTheListEndsAtOnce)
{
    start();
    EXPECT_EQ("", listed());
}

}  // namespace NV::test
