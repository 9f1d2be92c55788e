// Opening a provider: the choice of the slot, failures, and the lines that tell them.

#include "module_fixture.h"

namespace NV::test {

namespace {

class InitialisationTest : public ModuleTest {
protected:
    // Tries to open a provider on the token in its current state.
    SECURITY_STATUS open()
    {
        module.emplace();
        forget();
        const SECURITY_STATUS result = (*module)->OpenProvider(&opened, L"name", 0);
        lines = takeLines();
        return result;
    }

    ~InitialisationTest() override
    {
        if (opened != 0) {
            EXPECT_EQ(status(ERROR_SUCCESS), (*module)->FreeProvider(opened));
        }
    }

    std::string initLines() const
    {
        return levelsAndMessages(ofFunction(lines, "NV::Provider::init"));
    }

    // Everything that a served slot gives: an algorithm, and no more.
    bool hasAlgorithms() const
    {
        return (*module)->IsAlgSupported(opened, L"RSA", 0) == ERROR_SUCCESS;
    }

    NCRYPT_PROV_HANDLE opened = 0;
    LogLines lines;
};

}  // namespace

TEST_F(InitialisationTest, theFirstSlotIsUsed)
{
    EXPECT_EQ(status(ERROR_SUCCESS), open());
    EXPECT_EQ(R"(TRC ENTER
TRC Try to load PKCS11 library by configuration
TRC Success to load PKCS11 library
TRC Success to call C_Initialize()
TRC Slot Count = 1
INF Use first active slot[0]
TRC RESULT=1, ELAPSED:#(ms)
TRC LEAVE
)",
              initLines());
    EXPECT_TRUE(hasAlgorithms());
    EXPECT_FALSE(token.initialised());
}

TEST_F(InitialisationTest, propertiesComeBeforeTheSlotAndAlgorithmsAfterTheCertificates)
{
    open();
    std::string order;
    for (const LogLine& line : lines) {
        if (line.message == "ENTER" && (line.function.starts_with("NV::Provider::") ||
                                        line.function == "NV::CertStore::loadCertificates"))
            order += line.function + "\n";
    }
    EXPECT_EQ("NV::Provider::Provider\nNV::Provider::init\nNV::Provider::setDefaultProperties\n"
              "NV::CertStore::loadCertificates\nNV::Provider::setAlgorisms\n",
              order);
}

TEST_F(InitialisationTest, aTokenThatIsNotInitialisedIsPassedOver)
{
    token.clearSlots();
    token.addSlot(kSlot, kSlotFlags, kTokenFlags & ~CKF_TOKEN_INITIALIZED);
    token.addSlot(kOtherSlot);
    EXPECT_EQ(status(ERROR_SUCCESS), open());
    EXPECT_TRUE(hasLine(lines, "TRC NV::Provider::init:Slot Count = 2"));
    EXPECT_EQ("Use first active slot[1]\n",
              messages(ofFunction(lines, "NV::Provider::init"), "INF"));
    EXPECT_EQ("C_OpenSession(slot=77, flags=0x4, application=null, notify=null)\n",
              joined(token.calls("C_OpenSession")));
}

TEST_F(InitialisationTest, ofTwoActiveSlotsTheFirstIsUsed)
{
    token.clearSlots();
    token.addSlot(kOtherSlot);
    token.addSlot(kSlot);
    EXPECT_EQ(status(ERROR_SUCCESS), open());
    EXPECT_EQ("Use first active slot[0]\n",
              messages(ofFunction(lines, "NV::Provider::init"), "INF"));
    EXPECT_EQ("C_OpenSession(slot=77, flags=0x4, application=null, notify=null)\n",
              joined(token.calls("C_OpenSession")));
}

TEST_F(InitialisationTest, aSlotWhoseTokenInformationFailsIsPassedOverAndCounted)
{
    token.addSlot(kOtherSlot);
    token.fail("C_GetTokenInfo", CKR_DEVICE_ERROR, 1);
    EXPECT_EQ(status(ERROR_SUCCESS), open());
    EXPECT_EQ("Use first active slot[1]\n",
              messages(ofFunction(lines, "NV::Provider::init"), "INF"));
}

TEST_F(InitialisationTest, withoutAQualifyingSlotTheProviderIsOpenAndEmpty)
{
    token.clearSlots();
    token.addSlot(kSlot, kSlotFlags, kTokenFlags & ~CKF_TOKEN_INITIALIZED);
    token.addCertificate(Bytes{0x01, 0xAB}, certificateDer("rsa2048"));
    EXPECT_EQ(status(ERROR_SUCCESS), open());
    EXPECT_EQ(R"(TRC ENTER
TRC Try to load PKCS11 library by configuration
TRC Success to load PKCS11 library
TRC Success to call C_Initialize()
TRC Slot Count = 1
TRC RESULT=1, ELAPSED:#(ms)
TRC LEAVE
)",
              initLines());
    EXPECT_TRUE(token.calls("C_OpenSession").empty());
    EXPECT_EQ("C_Finalize(reserved=null)", token.calls().back());
    EXPECT_FALSE(token.initialised());

    DWORD count = 0xEE;
    NCryptAlgorithmName* list = nullptr;
    for (const DWORD operations : {0x3FU, 0x2U, 0x14U, 0xFFFFFFFFU})
        EXPECT_EQ(status(ERROR_SUCCESS),
                  (*module)->EnumAlgorithms(opened, operations, &count, &list, 0));
    EXPECT_EQ(0xEEU, count);
    EXPECT_EQ(nullptr, list);
    EXPECT_FALSE(hasAlgorithms());
    NCRYPT_KEY_HANDLE key = 0;
    EXPECT_EQ(status(NTE_INVALID_HANDLE), (*module)->OpenKey(opened, &key, L"01AB", 0, 0));
    DWORD length = 0;
    EXPECT_EQ(status(ERROR_SUCCESS),
              (*module)->GetProviderProperty(opened, L"Name", nullptr, 0, &length, 0));
    EXPECT_EQ(72U, length);
}

TEST_F(InitialisationTest, withoutAnySlotTheProviderIsOpenAndEmpty)
{
    token.clearSlots();
    EXPECT_EQ(status(ERROR_SUCCESS), open());
    EXPECT_TRUE(hasLine(lines, "TRC NV::Provider::init:Slot Count = 0"));
    EXPECT_FALSE(hasAlgorithms());
}

TEST_F(InitialisationTest, aLibraryThatIsNotThereIsAnInternalError)
{
    profile.writeConfigFor(L"Z:\\nowhere\\token.dll");
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), open());
    EXPECT_EQ(0U, opened);
    EXPECT_EQ(R"(TRC ENTER
TRC Try to load PKCS11 library by configuration
ERR Failed to load config file
TRC RESULT=0, ELAPSED:#(ms)
TRC LEAVE
)",
              initLines());
    EXPECT_TRUE(token.calls().empty());
}

TEST_F(InitialisationTest, aFailingInitializeIsAnInternalError)
{
    // The first call belongs to the discovery.
    token.fail("C_Initialize", CKR_DEVICE_ERROR, 2);
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), open());
    EXPECT_EQ(0U, opened);
    EXPECT_EQ(R"(TRC ENTER
TRC Try to load PKCS11 library by configuration
TRC Success to load PKCS11 library
ERR Failed to call C_Initialize()
TRC RESULT=0, ELAPSED:#(ms)
TRC LEAVE
)",
              initLines());
    EXPECT_TRUE(ofFunction(lines, "NV::Provider::setDefaultProperties").empty());
}

TEST_F(InitialisationTest, anInitialisedLibraryIsAFailureHere)
{
    token.fail("C_Initialize", CKR_CRYPTOKI_ALREADY_INITIALIZED, 2);
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), open());
    EXPECT_EQ("Failed to call C_Initialize()\n",
              messages(ofFunction(lines, "NV::Provider::init"), "ERR"));
}

TEST_F(InitialisationTest, aFailingFinalizeIsNotLookedAt)
{
    // The discovery finalises before and after itself.
    token.fail("C_Finalize", CKR_DEVICE_ERROR, 3);
    EXPECT_EQ(status(ERROR_SUCCESS), open());
    EXPECT_EQ("", messages(lines, "ERR"));
}

TEST_F(InitialisationTest, aFailingSessionLeavesAProviderWithoutKeys)
{
    token.addCertificate(Bytes{0x01, 0xAB}, certificateDer("rsa2048"));
    token.fail("C_OpenSession", CKR_DEVICE_ERROR);
    EXPECT_EQ(status(ERROR_SUCCESS), open());
    EXPECT_EQ("Failed C_OpenSession()\n",
              messages(ofFunction(lines, "NV::CertStore::loadCertificates"), "ERR"));
    EXPECT_TRUE(hasAlgorithms());
    NCRYPT_KEY_HANDLE key = 0;
    EXPECT_EQ(status(NTE_INVALID_HANDLE), (*module)->OpenKey(opened, &key, L"01AB", 0, 0));
}

TEST_F(InitialisationTest, theProviderServesAfterAFailedOpening)
{
    token.fail("C_Initialize", CKR_DEVICE_ERROR, 2);
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), open());
    EXPECT_EQ(status(ERROR_SUCCESS), (*module)->OpenProvider(&opened, L"name", 0));
    EXPECT_TRUE(hasAlgorithms());
}

}  // namespace NV::test
