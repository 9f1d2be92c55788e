// How long the library stays initialized: M22, and M14 for a program that uses the library, too.

#include <algorithm>
#include <chrono>
#include <ranges>
#include <string>
#include <thread>
#include <vector>

#include "dialog_driver.h"
#include "module_fixture.h"

namespace NV::test {

namespace {

const std::wstring rightPin(kPin.begin(), kPin.end());

class LibraryLifeTest : public ModernKeysTest {
protected:
    SECURITY_STATUS verify() { return verifyWith(handle(), rsa); }
    SECURITY_STATUS verifyWith(NCRYPT_PROV_HANDLE from, NCRYPT_KEY_HANDLE key)
    {
        Bytes data = hash;
        Bytes signature = signatureOf(CKM_RSA_PKCS, data, 256);
        return table()->VerifySignature(from, key, nullptr, data.data(), 32, signature.data(), 256,
                                        0);
    }
    SECURITY_STATUS sign(NCRYPT_KEY_HANDLE key)
    {
        Bytes data = hash;
        Bytes signature(256);
        DWORD length = 0;
        return table()->SignHash(handle(), key, nullptr, data.data(), 32, signature.data(), 256,
                                 &length, 0);
    }
    size_t callsOf(const std::string& name) { return token.calls(name).size(); }

    // The test program as a user of the library.
    CK_FUNCTION_LIST host = token.exports();
};

// A program that has initialized the library before the first provider is opened.
class LibraryOfHostTest : public ModernModuleTest {
protected:
    LibraryOfHostTest()
    {
        token.addCertificate(Bytes{0x01, 0xAB}, certificateDer("rsa2048"));
        token.addRsaKeyPair({0x01, 0xAB}, 2048);
        EXPECT_EQ(host.C_Initialize(nullptr), CKR_OK);
        EXPECT_EQ(host.C_OpenSession(kSlot, CKF_SERIAL_SESSION, nullptr, nullptr, &session),
                  CKR_OK);
        start();
    }
    ~LibraryOfHostTest() override
    {
        provider.reset();
        host.C_Finalize(nullptr);
    }
    SECURITY_STATUS sign()
    {
        Bytes data = someBytes(32);
        Bytes signature(256);
        DWORD length = 0;
        const DialogDriver dialog(DialogDriver::entering(rightPin));
        return table()->SignHash(handle(), openKey(L"01AB"), nullptr, data.data(), 32,
                                 signature.data(), 256, &length, 0);
    }

    CK_FUNCTION_LIST host = token.exports();
    CK_SESSION_HANDLE session = 0;
};

}  // namespace

TEST_F(ModernModuleTest, openingInitializesTheLibraryOnceAndFreeingFinalizesIt)
{
    module.emplace();
    provider.emplace(*module);
    EXPECT_EQ(1U, token.calls("C_Initialize").size());
    EXPECT_EQ(0U, token.calls("C_Finalize").size());
    EXPECT_EQ(1U, token.state().initArgumentsGiven);
    EXPECT_EQ(4U, token.state().callbacksGiven);
    provider.reset();
    EXPECT_EQ(1U, token.calls("C_Finalize").size());
    EXPECT_FALSE(token.initialised());
}

TEST_F(LibraryLifeTest, aSecondProviderSharesTheLibraryUntilTheLastOneIsFreed)
{
    OpenedProvider second(table());
    EXPECT_EQ(0U, callsOf("C_Initialize"));
    EXPECT_EQ(0U, callsOf("C_Finalize"));
    provider.reset();
    EXPECT_EQ(0U, callsOf("C_Finalize"));
    EXPECT_EQ(status(ERROR_SUCCESS), verifyWith(second.handle(), second.openKey(L"01AB")));
}

TEST_F(ModernModuleTest, unloadingTheModuleFinalizesTheLibrary)
{
    module.emplace();
    NCRYPT_PROV_HANDLE opened = 0;
    ASSERT_EQ(status(ERROR_SUCCESS), table()->OpenProvider(&opened, L"", 0));
    EXPECT_TRUE(token.initialised());
    module.reset();
    EXPECT_EQ(1U, token.calls("C_Finalize").size());
    EXPECT_FALSE(token.initialised());
}

TEST_F(LibraryLifeTest, anOperationUsesTheInitializedLibrary)
{
    EXPECT_EQ(status(ERROR_SUCCESS), verify());
    EXPECT_EQ("C_OpenSession\nC_FindObjectsInit\nC_FindObjects\nC_FindObjectsFinal\nC_VerifyInit\n"
              "C_Verify\nC_CloseSession\n",
              joined(token.callNames()));
    EXPECT_TRUE(token.initialised());
    EXPECT_EQ(0U, token.openSessions());
}

TEST_F(LibraryLifeTest, anOperationWithAPinLogsInAndOutOnItsOwnSession)
{
    const DialogDriver dialog(DialogDriver::entering(rightPin));
    EXPECT_EQ(status(ERROR_SUCCESS), sign(rsa));
    EXPECT_EQ(1U, callsOf("C_Login"));
    EXPECT_EQ(1U, callsOf("C_Logout"));
    EXPECT_EQ(0U, callsOf("C_Initialize") + callsOf("C_Finalize"));
    EXPECT_FALSE(token.userLoggedIn());
}

TEST_F(LibraryLifeTest, aLibraryThatSomebodyHasFinalizedIsInitializedAgain)
{
    ASSERT_EQ(CKR_OK, host.C_Finalize(nullptr));
    takeLines();
    EXPECT_EQ(status(ERROR_SUCCESS), verify());
    EXPECT_EQ("Another part of the process has finalized the library\n",
              messages(takeLines(), "WRN"));
    EXPECT_EQ(1U, callsOf("C_Initialize"));
    EXPECT_EQ(2U, callsOf("C_OpenSession"));
    provider.reset();
    EXPECT_FALSE(token.initialised());
}

TEST_F(LibraryLifeTest, anOperationBeginsAgainOnlyOnce)
{
    token.fail("C_OpenSession", CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), verify());
    EXPECT_EQ(2U, callsOf("C_OpenSession"));
    token.clearFaults();
    EXPECT_EQ(status(ERROR_SUCCESS), verify());
}

TEST_F(LibraryLifeTest, aLibraryThatCannotBeInitializedAgainFailsTheOperation)
{
    ASSERT_EQ(CKR_OK, host.C_Finalize(nullptr));
    token.fail("C_Initialize", CKR_DEVICE_ERROR, 1);
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), verify());
    EXPECT_EQ(status(ERROR_SUCCESS), verify());
}

TEST_F(LibraryLifeTest, aSignatureThatBeginsAgainAsksForThePinOnce)
{
    ASSERT_EQ(CKR_OK, host.C_Finalize(nullptr));
    DialogDriver dialog(DialogDriver::entering(rightPin));
    EXPECT_EQ(status(ERROR_SUCCESS), sign(rsa));
    EXPECT_EQ(1, dialog.answered());
}

// What the dialog says of the token's tries must not be missing in it.
TEST_F(LibraryLifeTest, theDialogsQuestionBeginsAgainToo)
{
    ASSERT_EQ(CKR_OK, host.C_Finalize(nullptr));
    token.clearCalls();
    const DialogDriver dialog(DialogDriver::entering(rightPin));
    EXPECT_EQ(status(ERROR_SUCCESS), sign(rsa));
    std::vector<std::string> calls = token.callNames();
    calls.resize(4);
    EXPECT_EQ("C_GetTokenInfo\nC_Initialize\nC_GetTokenInfo\nC_OpenSession\n", joined(calls));
    EXPECT_EQ(1U, callsOf("C_OpenSession"));
}

TEST_F(LibraryLifeTest, openingInitializesAgainWhatSomebodyHasFinalized)
{
    ASSERT_EQ(CKR_OK, host.C_Finalize(nullptr));
    OpenedProvider second(table());
    EXPECT_EQ(status(ERROR_SUCCESS), verifyWith(second.handle(), second.openKey(L"01AB")));
    EXPECT_EQ(1U, callsOf("C_Initialize"));
}

// The host ends the library while the opening reads its certificates.
TEST_F(LibraryLifeTest, openingBeginsAgainWhenTheLibraryIsFinalizedMeanwhile)
{
    provider.reset();
    forget();
    token.delay("C_FindObjects", std::chrono::milliseconds(300), 1);
    {
        const std::jthread finalizer([&] {
            while (callsOf("C_FindObjects") == 0)
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            EXPECT_EQ(CKR_OK, host.C_Finalize(nullptr));
        });
        provider.emplace(*module);
    }
    EXPECT_EQ(2U, callsOf("C_Initialize"));
    EXPECT_EQ(2U, callsOf("C_GetInfo"));
    EXPECT_EQ(status(ERROR_SUCCESS), verifyWith(handle(), openKey(L"01AB")));
    EXPECT_EQ(0U, token.openSessions());
    provider.reset();
    EXPECT_FALSE(token.initialised());
}

// Calls that an opening swallows other failures of, and one that it does not.
TEST_F(LibraryLifeTest, openingBeginsAgainOnlyOnce)
{
    for (const char* second : {"C_GetInfo", "C_GetTokenInfo", "C_OpenSession", "C_CloseSession"}) {
        SCOPED_TRACE(second);
        forget();
        token.fail("C_GetSlotList", CKR_CRYPTOKI_NOT_INITIALIZED, 1);
        token.fail(second, CKR_CRYPTOKI_NOT_INITIALIZED,
                   std::string(second) == "C_GetInfo" ? 2 : 1);
        NCRYPT_PROV_HANDLE opened = 0;
        EXPECT_EQ(status(NTE_INTERNAL_ERROR), table()->OpenProvider(&opened, L"", 0));
        EXPECT_EQ(0U, opened);
        EXPECT_EQ(2U, callsOf("C_GetInfo"));
        token.clearFaults();
        // The provider that was open before is not affected, and another one opens.
        EXPECT_EQ(status(ERROR_SUCCESS), verify());
        OpenedProvider third(table());
        EXPECT_EQ(status(ERROR_SUCCESS), verifyWith(third.handle(), third.openKey(L"01AB")));
    }
    provider.reset();
}

TEST_F(ModernModuleTest, anOpeningThatFailsTheSecondTimeLeavesTheLibraryToNobody)
{
    module.emplace();
    token.fail("C_OpenSession", CKR_CRYPTOKI_NOT_INITIALIZED);
    NCRYPT_PROV_HANDLE opened = 0;
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), table()->OpenProvider(&opened, L"", 0));
    EXPECT_EQ(2U, token.calls("C_OpenSession").size());
    token.clearFaults();
    CK_FUNCTION_LIST host = token.exports();
    host.C_Finalize(nullptr);
    // Nobody is counted any more: the next one initializes the library, and finalizes it.
    provider.emplace(*module);
    provider.reset();
    EXPECT_FALSE(token.initialised());
}

TEST_F(ModernModuleTest, aLibraryThatThrowsAfterInitializingIsFinalized)
{
    module.emplace();
    token.throwAfterWork("C_Initialize");
    NCRYPT_PROV_HANDLE opened = 0;
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), table()->OpenProvider(&opened, L"", 0));
    EXPECT_FALSE(token.initialised());
    EXPECT_NE(std::string::npos, messages(takeLines(), "ERR").find("Caught Exception\n"));
}

TEST_F(LibraryOfHostTest, itsInitializationIsNeitherEndedNorRepeated)
{
    EXPECT_EQ(status(ERROR_SUCCESS), sign());
    provider.reset();
    EXPECT_EQ(0U, token.calls("C_Finalize").size());
    EXPECT_TRUE(token.initialised());
    CK_SESSION_INFO info{};
    EXPECT_EQ(CKR_OK, host.C_GetSessionInfo(session, &info));
}

TEST_F(LibraryOfHostTest, itsLoginIsUsedAndLeft)
{
    std::string pin(kPin);
    ASSERT_EQ(CKR_OK, host.C_Login(session, CKU_USER, reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data()),
                                   static_cast<CK_ULONG>(pin.size())));
    EXPECT_EQ(status(ERROR_SUCCESS), sign());
    EXPECT_EQ(0U, token.calls("C_Logout").size());
    EXPECT_TRUE(token.userLoggedIn());
}

TEST_F(LibraryOfHostTest, whatTheHostFinalizesIsTheModulesFromThenOn)
{
    ASSERT_EQ(CKR_OK, host.C_Finalize(nullptr));
    EXPECT_EQ(status(ERROR_SUCCESS), sign());
    EXPECT_TRUE(token.initialised());
    provider.reset();
    EXPECT_FALSE(token.initialised());
}

TEST_F(LibraryLifeTest, operationsWithoutAPinRunSideBySide)
{
    constexpr int threads = 4;
    constexpr std::chrono::milliseconds delay(500);
    token.delay("C_Verify", delay);
    std::vector<SECURITY_STATUS> results(threads, NTE_NOT_FOUND);
    const auto begin = std::chrono::steady_clock::now();
    {
        std::vector<std::jthread> workers;
        for (int i = 0; i < threads; ++i)
            workers.emplace_back([&, i] { results[static_cast<size_t>(i)] = verify(); });
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, delay * threads);
    EXPECT_TRUE(std::ranges::all_of(results, [](auto result) { return result == ERROR_SUCCESS; }));
    EXPECT_GT(token.overlappingCalls(), 0U);
}

TEST_F(LibraryLifeTest, operationsWithAPinHaveTheLoginToThemselves)
{
    token.delay("C_Sign", std::chrono::milliseconds(50));
    SECURITY_STATUS other = NTE_NOT_FOUND;
    DialogDriver dialog(DialogDriver::entering(rightPin), 2);
    {
        const std::jthread worker([&] { other = sign(ec); });
        EXPECT_EQ(status(ERROR_SUCCESS), sign(rsa));
    }
    EXPECT_EQ(status(ERROR_SUCCESS), other);
    std::string logins;
    for (const std::string& name : token.callNames())
        logins += name == "C_Login" || name == "C_Logout" ? name + " " : "";
    EXPECT_EQ("C_Login C_Logout C_Login C_Logout ", logins);
}

TEST_F(LibraryLifeTest, otherOperationsGoOnWhileTheDialogIsOpen)
{
    SECURITY_STATUS verified = NTE_NOT_FOUND;
    SECURITY_STATUS freed = NTE_NOT_FOUND;
    const DialogDriver dialog([&](const PinDialogWindow& window) {
        verified = verify();
        // The key of the signature: it lives until the operation ends.
        freed = table()->FreeKey(handle(), ec);
        window.type(rightPin);
        window.pressOk();
    });
    Bytes signature(64);
    DWORD length = 0;
    EXPECT_EQ(status(ERROR_SUCCESS), table()->SignHash(handle(), ec, nullptr, hash.data(), 32,
                                                       signature.data(), 64, &length, 0));
    EXPECT_EQ(status(ERROR_SUCCESS), verified);
    EXPECT_EQ(status(ERROR_SUCCESS), freed);
    EXPECT_EQ(signatureOf(CKM_ECDSA, hash, 64), signature);
    EXPECT_EQ(status(NTE_INVALID_HANDLE), table()->FreeKey(handle(), ec));
}

}  // namespace NV::test
