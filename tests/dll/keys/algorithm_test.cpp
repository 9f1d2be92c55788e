// The algorithms that a provider names, and the operations that it refuses.

#include <cstdlib>

#include "module_fixture.h"
#include "trace_file.h"

namespace NV::test {

namespace {

class AlgorithmTest : public ServedKeysTest {
protected:
    SECURITY_STATUS supported(const wchar_t* name, DWORD flags = 0)
    {
        return table()->IsAlgSupported(handle(), name, flags);
    }

    // "RSA 4 3 0" a record, a line each.
    std::string listed(DWORD operations)
    {
        DWORD count = 0xEE;
        NCryptAlgorithmName* list = nullptr;
        EXPECT_EQ(status(ERROR_SUCCESS),
                  table()->EnumAlgorithms(handle(), operations, &count, &list, 0));
        if (list == nullptr)
            return "nothing, count " + std::to_string(count);
        std::string text;
        for (DWORD i = 0; i < count; ++i) {
            const std::wstring name = list[i].pszName;
            text += std::string(name.begin(), name.end()) + " " + std::to_string(list[i].dwClass) +
                    " " + std::to_string(list[i].dwAlgOperations) + " " +
                    std::to_string(list[i].dwFlags) + "\n";
        }
        EXPECT_EQ(status(ERROR_SUCCESS), table()->FreeBuffer(list));
        return text;
    }

    const std::string hashes = "SHA1 2 0 0\nSHA256 2 0 0\nSHA384 2 0 0\nSHA512 2 0 0\n"
                               "MD2 2 0 0\nMD4 2 0 0\nMD5 2 0 0\n";
    const std::string encryption = "RSA 4 3 0\nECDSA 4 3 0\n";
    const std::string agreement = "ECDH_P256 8 4 0\nECDH_P384 8 4 0\nECDH_P521 8 4 0\n";
    const std::string signature = "RSA_SIGN 16 5 0\nECDSA_P256 16 5 0\nECDSA_P384 16 5 0\n"
                                  "ECDSA_P521 16 5 0\n";
    const std::string randomness = "RNG 32 0 0\n";
};

// Every refused operation warns right after ENTER, touches neither token nor output and goes on.
class RefusedOperationTest : public ServedKeysTest {
protected:
    void expectTrace(const std::string& function, const std::string& arguments,
                     const std::string& result)
    {
        EXPECT_EQ("TRC ENTER\nWRN This operation is not available\n" + arguments +
                      "TRC STATUS=" + result + ", ELAPSED:#(ms)\nTRC LEAVE\n",
                  levelsAndMessages(linesOf("NV::Provider::" + function)));
        EXPECT_TRUE(token.calls().empty());
    }

    SECURITY_STATUS create(const wchar_t* algorithm, DWORD flags, bool withKey = true)
    {
        return table()->CreatePersistedKey(handle(), withKey ? &key : nullptr, algorithm, L"New", 1,
                                           flags);
    }

    NCRYPT_KEY_HANDLE key = 0xEE;
};

}  // namespace

TEST_F(AlgorithmTest, hashEncryptionRandomAndAgreementNamesAreSupported)
{
    for (const wchar_t* name : {L"SHA1", L"SHA256", L"SHA384", L"SHA512", L"MD2", L"MD4", L"MD5",
                                L"RSA", L"ECDSA", L"RNG", L"ECDH_P256", L"ECDH_P384", L"ECDH_P521"})
        EXPECT_EQ(status(ERROR_SUCCESS), supported(name)) << std::wstring(name).size();
}

TEST_F(AlgorithmTest, signatureNamesAreNotSearched)
{
    for (const wchar_t* name : {L"RSA_SIGN", L"ECDSA_P256", L"ECDSA_P384", L"ECDSA_P521"})
        EXPECT_EQ(status(NTE_NOT_SUPPORTED), supported(name));
}

TEST_F(AlgorithmTest, namesAreComparedExactly)
{
    for (const wchar_t* name : {L"", L"rsa", L"RSA ", L"RS", L"SHA", L"SHA2567", L"sha256", L"AES",
                                L"Microsoft Primitive Provider"})
        EXPECT_EQ(status(NTE_NOT_SUPPORTED), supported(name));
}

TEST_F(AlgorithmTest, aNullNameIsRefusedAndFlagsAreOnlyTraced)
{
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), supported(nullptr));
    takeLines();
    EXPECT_EQ(status(ERROR_SUCCESS), supported(L"RSA", 0xFFFFFFFF));
    expectTrace(linesOf("NV::Provider::IsAlgSupported"),
                "dll/keys/algorithm/a_null_name_is_refused_and_flags_are_only_traced");
}

TEST_F(AlgorithmTest, eachOperationListsItsNames)
{
    EXPECT_EQ(hashes, listed(0x2));
    EXPECT_EQ(encryption, listed(0x4));
    EXPECT_EQ(agreement, listed(0x8));
    EXPECT_EQ(signature, listed(0x10));
    EXPECT_EQ(randomness, listed(0x20));
}

TEST_F(AlgorithmTest, encryptionAndSignatureTogetherAreSixRecords)
{
    EXPECT_EQ(encryption + signature, listed(0x14));
}

TEST_F(AlgorithmTest, allOperationsAreListedInTheOrderOfTheirBits)
{
    EXPECT_EQ(hashes + encryption + agreement + signature + randomness, listed(0x3F));
    EXPECT_EQ(hashes + encryption + agreement + signature + randomness, listed(0xFFFFFFFF));
}

TEST_F(AlgorithmTest, aListWithoutRecordsWritesNothing)
{
    for (const DWORD operations : {0x1U, 0x40U, 0x80000000U})
        EXPECT_EQ("nothing, count 238", listed(operations));
}

TEST_F(AlgorithmTest, listingIsTraced)
{
    listed(0x1);
    expectTrace(linesOf("NV::Provider::EnumAlgorithms"), "dll/keys/algorithm/listing_is_traced");
}

TEST_F(AlgorithmTest, listingRefusesNullOutputsAndNoOperation)
{
    DWORD count = 0xEE;
    NCryptAlgorithmName* list = nullptr;
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              table()->EnumAlgorithms(handle(), 0x2, nullptr, &list, 0));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              table()->EnumAlgorithms(handle(), 0x2, &count, nullptr, 0));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              table()->EnumAlgorithms(handle(), 0, &count, &list, 0));
    EXPECT_EQ(0xEEU, count);
    EXPECT_EQ(nullptr, list);
}

TEST_F(AlgorithmTest, namesOutliveTheirBlock)
{
    DWORD count = 0;
    NCryptAlgorithmName* list = nullptr;
    ASSERT_EQ(status(ERROR_SUCCESS), table()->EnumAlgorithms(handle(), 0x20, &count, &list, 0));
    const wchar_t* name = list[0].pszName;
    EXPECT_EQ(status(ERROR_SUCCESS), table()->FreeBuffer(list));
    DWORD secondCount = 0;
    ASSERT_EQ(status(ERROR_SUCCESS),
              table()->EnumAlgorithms(handle(), 0x20, &secondCount, &list, 0));
    EXPECT_EQ(L"RNG", std::wstring(name));
    EXPECT_NE(name, list[0].pszName);
    table()->FreeBuffer(list);
}

TEST_F(RefusedOperationTest, createPersistedKeyOfAnyOtherAlgorithmIsNotSupported)
{
    for (const wchar_t* name : {L"ECDSA", L"rsa", L"RSA ", L""}) {
        EXPECT_EQ(status(NTE_NOT_SUPPORTED), create(name, 0));
        EXPECT_EQ(status(NTE_NOT_SUPPORTED), create(name, 0xFFFFFFFF, false));
    }
    EXPECT_EQ(status(NTE_NOT_SUPPORTED), create(nullptr, 0));
    EXPECT_EQ(0xEEU, key);
}

TEST_F(RefusedOperationTest, createPersistedKeyOfRsaLooksAtFlagsThenAtTheHandle)
{
    EXPECT_EQ(status(NTE_BAD_FLAGS), create(L"RSA", 0x1));
    EXPECT_EQ(status(NTE_BAD_FLAGS), create(L"RSA", 0xC1));
    EXPECT_EQ(status(NTE_BAD_FLAGS), create(L"RSA", 0x1, false));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), create(L"RSA", 0, false));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), create(L"RSA", 0xC0, false));
    for (const DWORD flags : {0x0U, 0x40U, 0x80U, 0xC0U})
        EXPECT_EQ(status(NTE_NOT_SUPPORTED), create(L"RSA", flags)) << flags;
    EXPECT_EQ(0xEEU, key);
}

TEST_F(RefusedOperationTest, createPersistedKeyIsTraced)
{
    create(L"RSA", 0x80);
    expectTrace("CreatePersistedKey",
                "TRC ARG[0]:phKey=PTR\nTRC ARG[1]:pszAlgId=RSA\nTRC ARG[2]:pszKeyName=New\n"
                "TRC ARG[3]:dwLegacyKeySpec=0x1\nTRC ARG[4]:dwFlags=0x80\n",
                "0x80090029");
}

TEST_F(RefusedOperationTest, finalizeKey)
{
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), table()->FinalizeKey(handle(), 0, 0));
    takeLines();
    EXPECT_EQ(status(NTE_NOT_SUPPORTED), table()->FinalizeKey(handle(), rsa, 0x40));
    expectTrace("FinalizeKey", "TRC ARG[0]:hKey=PTR\nTRC ARG[1]:dwFlags=0x40\n", "0x80090029");
}

TEST_F(RefusedOperationTest, deleteKey)
{
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), table()->DeleteKey(handle(), 0, 0));
    takeLines();
    EXPECT_EQ(status(NTE_NOT_SUPPORTED), table()->DeleteKey(handle(), rsa, 0x40));
    expectTrace("DeleteKey", "TRC ARG[0]:hKey=PTR\nTRC ARG[1]:dwFlags=0x40\n", "0x80090029");
    // The key is still served.
    EXPECT_EQ(status(ERROR_SUCCESS), table()->FreeKey(handle(), rsa));
    EXPECT_NE(0U, openKey(L"01AB"));
}

TEST_F(RefusedOperationTest, promptUser)
{
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), table()->PromptUser(handle(), 0, L"x", 0));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), table()->PromptUser(handle(), rsa, nullptr, 0));
    takeLines();
    EXPECT_EQ(status(NTE_NOT_SUPPORTED), table()->PromptUser(handle(), rsa, L"sign", 0));
    expectTrace("PromptUser",
                "TRC ARG[0]:hKey=PTR\nTRC ARG[1]:pszOperation=sign\nTRC ARG[2]:dwFlags=0x0\n",
                "0x80090029");
}

TEST_F(RefusedOperationTest, notifyChangeKey)
{
    HANDLE event = nullptr;
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), table()->NotifyChangeKey(handle(), nullptr, 0));
    expectTrace("NotifyChangeKey", "TRC ARG[0]:phEvent=NULL\nTRC ARG[1]:dwFlags=0x0\n",
                "0x80090027");
    EXPECT_EQ(status(NTE_NOT_SUPPORTED), table()->NotifyChangeKey(handle(), &event, 1));
    expectTrace("NotifyChangeKey", "TRC ARG[0]:phEvent=PTR\nTRC ARG[1]:dwFlags=0x1\n",
                "0x80090029");
    EXPECT_EQ(nullptr, event);
}

}  // namespace NV::test
