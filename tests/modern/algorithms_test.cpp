// M28: the algorithms that a provider names.

#include "module_fixture.h"

namespace NV::test {

namespace {

constexpr DWORD cipherOperation = 0x01;
constexpr DWORD hashOperation = 0x02;
constexpr DWORD encryptionOperation = 0x04;
constexpr DWORD agreementOperation = 0x08;
constexpr DWORD signatureOperation = 0x10;
constexpr DWORD randomOperation = 0x20;

constexpr const wchar_t* keyAlgorithms[] = {
    L"RSA", L"ECDH_P256", L"ECDH_P384", L"ECDH_P521", L"ECDSA_P256", L"ECDSA_P384", L"ECDSA_P521"};

class ModernAlgorithmsTest : public ModernModuleTest {
protected:
    // "RSA 3 20 0" a record, a line each: the class and the operations.
    std::string listed(DWORD operations)
    {
        DWORD count = 0xEE;
        auto* list = reinterpret_cast<NCryptAlgorithmName*>(&count);
        EXPECT_EQ(status(ERROR_SUCCESS),
                  table()->EnumAlgorithms(handle(), operations, &count, &list, 0));
        std::string text;
        for (DWORD i = 0; i < count; ++i) {
            const std::wstring name = list[i].pszName;
            text += std::string(name.begin(), name.end()) + " " + std::to_string(list[i].dwClass) +
                    " " + std::to_string(list[i].dwAlgOperations) + " " +
                    std::to_string(list[i].dwFlags) + "\n";
        }
        EXPECT_EQ(count == 0, list == nullptr);
        table()->FreeBuffer(list);
        return text;
    }

    SECURITY_STATUS supported(const wchar_t* name)
    {
        return table()->IsAlgSupported(handle(), name, 0);
    }

    const std::string rsa = "RSA 3 20 0\n";
    const std::string agreement = "ECDH_P256 4 8 0\nECDH_P384 4 8 0\nECDH_P521 4 8 0\n";
    const std::string signature = "ECDSA_P256 5 16 0\nECDSA_P384 5 16 0\nECDSA_P521 5 16 0\n";
};

}  // namespace

TEST_F(ModernAlgorithmsTest, areThoseOfTheKeysOneRecordAName)
{
    start();
    EXPECT_EQ(rsa, listed(encryptionOperation));
    EXPECT_EQ(agreement, listed(agreementOperation));
    EXPECT_EQ(rsa + signature, listed(signatureOperation));
    EXPECT_EQ(rsa + signature, listed(signatureOperation | encryptionOperation));
    EXPECT_EQ(rsa + agreement, listed(encryptionOperation | agreementOperation));
    EXPECT_EQ(rsa + agreement + signature, listed(0xFFFFFFFF));
    EXPECT_TRUE(token.calls().empty());
}

TEST_F(ModernAlgorithmsTest, withoutOneOfTheKindTheListIsNull)
{
    start();
    for (const DWORD operations :
         {cipherOperation, hashOperation, randomOperation, cipherOperation | randomOperation,
          DWORD{0x40}, DWORD{0x80000000}})
        EXPECT_EQ("", listed(operations)) << operations;
}

TEST_F(ModernAlgorithmsTest, recordsAndNamesAreOneBlock)
{
    start();
    DWORD count = 0;
    NCryptAlgorithmName* list = nullptr;
    ASSERT_EQ(status(ERROR_SUCCESS),
              table()->EnumAlgorithms(handle(), signatureOperation, &count, &list, 0));
    ASSERT_EQ(4U, count);
    const auto* behind = reinterpret_cast<const wchar_t*>(list + count);
    EXPECT_EQ(behind, list[0].pszName);
    EXPECT_EQ(behind + 4, list[1].pszName);
    EXPECT_EQ(behind + 26, list[3].pszName);  // "RSA" and two names of ten characters
    table()->FreeBuffer(list);
}

TEST_F(ModernAlgorithmsTest, areSupportedAndNoOthers)
{
    start();
    for (const wchar_t* name : keyAlgorithms)
        EXPECT_EQ(status(ERROR_SUCCESS), supported(name));
    for (const wchar_t* name : {L"", L"rsa", L"RSA ", L"RSA_SIGN", L"ECDSA", L"ECDH", L"SHA1",
                                L"SHA256", L"MD5", L"RNG", L"AES", L"ECDSA_P2"})
        EXPECT_EQ(status(NTE_NOT_SUPPORTED), supported(name));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), supported(nullptr));
}

TEST_F(ModernAlgorithmsTest, wrongArgumentsAreRefusedAndWriteNothing)
{
    start();
    DWORD count = 0xEE;
    NCryptAlgorithmName* list = nullptr;
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              table()->EnumAlgorithms(handle(), 0, &count, &list, 0));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              table()->EnumAlgorithms(handle(), signatureOperation, nullptr, &list, 0));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              table()->EnumAlgorithms(handle(), signatureOperation, &count, nullptr, 0));
    EXPECT_EQ(0xEEU, count);
    EXPECT_EQ(nullptr, list);
}

TEST_F(ModernAlgorithmsTest, withoutATokenThereAreNone)
{
    token.clearSlots();
    start();
    EXPECT_EQ("", listed(0xFFFFFFFF));
    for (const wchar_t* name : keyAlgorithms)
        EXPECT_EQ(status(NTE_NOT_SUPPORTED), supported(name));
}

}  // namespace NV::test
