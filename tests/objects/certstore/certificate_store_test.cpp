// Publication in the user's "My" store, with the system's functions failing on demand, and the
// discovery of a whole slot.
//
// The program is linked with three imported functions of the system wrapped.

#include <windows.h>

#include <wincrypt.h>

#include "certstore/certstore.h"
#include "key_fixture.h"

namespace {

bool openFails = false;
bool addFails = false;
bool setFails = false;

}  // namespace

// The linker's names for the pointers through which the imported functions are called.
extern "C" {
using OpenStore = HCERTSTORE(WINAPI*)(HCRYPTPROV_LEGACY, LPCWSTR);
using AddToStore = BOOL(WINAPI*)(HCERTSTORE, PCCERT_CONTEXT, DWORD, PCCERT_CONTEXT*);
using SetProperty = BOOL(WINAPI*)(PCCERT_CONTEXT, DWORD, DWORD, const void*);

extern OpenStore __real___imp_CertOpenSystemStoreW;
extern AddToStore __real___imp_CertAddCertificateContextToStore;
extern SetProperty __real___imp_CertSetCertificateContextProperty;
extern OpenStore __wrap___imp_CertOpenSystemStoreW;
extern AddToStore __wrap___imp_CertAddCertificateContextToStore;
extern SetProperty __wrap___imp_CertSetCertificateContextProperty;

static HCERTSTORE WINAPI openStore(HCRYPTPROV_LEGACY provider, LPCWSTR name)
{
    return openFails ? nullptr : __real___imp_CertOpenSystemStoreW(provider, name);
}

static BOOL WINAPI addToStore(HCERTSTORE store, PCCERT_CONTEXT context, DWORD disposition,
                              PCCERT_CONTEXT* stored)
{
    return addFails
               ? FALSE
               : __real___imp_CertAddCertificateContextToStore(store, context, disposition, stored);
}

static BOOL WINAPI setProperty(PCCERT_CONTEXT context, DWORD property, DWORD flags,
                               const void* data)
{
    return setFails
               ? FALSE
               : __real___imp_CertSetCertificateContextProperty(context, property, flags, data);
}

OpenStore __wrap___imp_CertOpenSystemStoreW = &openStore;
AddToStore __wrap___imp_CertAddCertificateContextToStore = &addToStore;
SetProperty __wrap___imp_CertSetCertificateContextProperty = &setProperty;
}

namespace NV::test {

namespace {

constexpr const wchar_t* provider = L"Norvanta Software KeyStore Provider";

class PublishTest : public testing::Test {
protected:
    ~PublishTest() override
    {
        openFails = false;
        addFails = false;
        setFails = false;
    }

    bool publish() { return P11CertObject::AddToLocalStore(provider, L"01AB", base64); }

    // The function's lines without ENTER, arguments and LEAVE.
    std::string steps()
    {
        std::string text;
        for (const LogLine& line : log.takeLines()) {
            if (line.message != "ENTER" && line.message != "LEAVE" &&
                !line.message.starts_with("ARG["))
                text += line.level + " " + line.message + "\n";
        }
        return text;
    }

    LogCapture log;
    std::string base64 = base64Encode(certificateDer("p256"));
};

// A call layer that is initialised, as it is while a provider opens.
class LoadCertificatesTest : public KeyTest {
protected:
    LoadCertificatesTest()
    {
        token.clearObjects();
        slot.setId(kSlot);
        EXPECT_EQ(CKR_OK, p11.C_Initialize(nullptr));
        forget();
    }
    ~LoadCertificatesTest() override { p11.C_Finalize(nullptr); }

    P11Slot slot;
    CertStore store;
};

constexpr const char* steps1To4 = "TRC 1) Open System Store (My)\n"
                                  "TRC 2) Create a certificate context\n"
                                  "TRC 3) Add the context to the store\n"
                                  "TRC 4) Associate the provInfo to the context\n";

}  // namespace

TEST_F(PublishTest, isTracedWithoutTheProvidersName)
{
    EXPECT_TRUE(publish());
    expectBlock(log.takeLines(), "TRC NV::P11CertObject::AddToLocalStore:ENTER\n"
                                 "TRC NV::P11CertObject::AddToLocalStore:ARG[0]:"
                                 "pwszContainerName=01AB\n"
                                 "TRC NV::P11CertObject::AddToLocalStore:ARG[1]:base64=" +
                                     base64 +
                                     R"(
TRC NV::P11CertObject::AddToLocalStore:1) Open System Store (My)
TRC NV::P11CertObject::AddToLocalStore:2) Create a certificate context
TRC NV::P11CertObject::AddToLocalStore:3) Add the context to the store
TRC NV::P11CertObject::AddToLocalStore:4) Associate the provInfo to the context
TRC NV::P11CertObject::AddToLocalStore:LEAVE
)");
}

TEST_F(PublishTest, anEqualCertificateIsReplaced)
{
    EXPECT_TRUE(publish());
    EXPECT_TRUE(publish());
    EXPECT_EQ(std::string(steps1To4) + steps1To4, steps());
}

TEST_F(PublishTest, aStoreThatDoesNotOpenEndsIt)
{
    openFails = true;
    EXPECT_FALSE(publish());
    EXPECT_EQ("TRC 1) Open System Store (My)\nERR CertOpenSystemStore() failed\n", steps());
}

TEST_F(PublishTest, whatIsNoCertificateEndsIt)
{
    for (const char* text : {"", "MAA=", "AAAA"}) {
        base64 = text;
        EXPECT_FALSE(publish());
        EXPECT_EQ("TRC 1) Open System Store (My)\nTRC 2) Create a certificate context\n"
                  "ERR CertCreateCertificateContext() failed\n",
                  steps());
    }
}

TEST_F(PublishTest, aCertificateThatCannotBeAddedEndsIt)
{
    addFails = true;
    EXPECT_FALSE(publish());
    EXPECT_EQ("TRC 1) Open System Store (My)\nTRC 2) Create a certificate context\n"
              "TRC 3) Add the context to the store\n"
              "ERR CertAddCertificateContextToStore() failed\n",
              steps());
}

TEST_F(PublishTest, informationThatCannotBeSetIsOnlyLogged)
{
    setFails = true;
    EXPECT_TRUE(publish());
    EXPECT_EQ(std::string(steps1To4) + "ERR CertSetCertificateContextProperty() failed\n", steps());
}

TEST_F(LoadCertificatesTest, withoutASlotIsFalse)
{
    EXPECT_FALSE(store.loadCertificates(p11, nullptr, provider));
    EXPECT_TRUE(token.calls().empty());
    expectBlock(log.takeLines(), R"(
TRC NV::CertStore::loadCertificates:ENTER
TRC NV::CertStore::loadCertificates:LEAVE
)");
}

TEST_F(LoadCertificatesTest, aSessionThatDoesNotOpenIsFalse)
{
    token.fail("C_OpenSession", CKR_DEVICE_ERROR);
    EXPECT_FALSE(store.loadCertificates(p11, &slot, provider));
    expectBlock(ofFunction(log.takeLines(), "NV::CertStore::loadCertificates"), R"(
TRC NV::CertStore::loadCertificates:ENTER
ERR NV::CertStore::loadCertificates:Failed C_OpenSession()
TRC NV::CertStore::loadCertificates:LEAVE
)");
}

TEST_F(LoadCertificatesTest, aTokenWithoutCertificatesIsTrue)
{
    EXPECT_TRUE(store.loadCertificates(p11, &slot, provider));
    EXPECT_TRUE(store.certificates().empty());
    EXPECT_EQ("C_OpenSession(slot=52, flags=0x4, application=null, notify=null)\n"
              "C_FindObjectsInit(session=0x5E55, template={0x0=01000000,0x80=00000000})\n"
              "C_FindObjects(session=0x5E55, max=1024, objects=given, count=given)\n"
              "C_FindObjectsFinal(session=0x5E55)\nC_CloseSession(session=0x5E55)\n",
              joined(token.calls()));
    EXPECT_TRUE(ofFunction(log.takeLines(), "NV::P11CertObject::AddToLocalStore").empty());
}

TEST_F(LoadCertificatesTest, keepsTheFirstOfANameAndPublishesAll)
{
    token.addCertificate(Bytes{0x07}, certificateDer("p384"));
    token.addCertificate(Bytes{0x07}, certificateDer("p256"));
    token.addCertificate(Bytes{0x01}, certificateDer("rsa1024"));
    EXPECT_TRUE(store.loadCertificates(p11, &slot, provider));
    ASSERT_EQ(2U, store.certificates().size());
    EXPECT_EQ(1024U, store.certificates().at(L"01")->keyLength());
    EXPECT_EQ(384U, store.certificates().at(L"07")->keyLength());
    std::string published;
    for (const LogLine& line : ofFunction(log.takeLines(), "NV::P11CertObject::AddToLocalStore")) {
        if (line.message.starts_with("ARG[0]:"))
            published += line.message.substr(7) + "\n";
    }
    EXPECT_EQ("pwszContainerName=07\npwszContainerName=07\npwszContainerName=01\n", published);
}

TEST_F(LoadCertificatesTest, aFailingPublicationIsNotLookedAt)
{
    openFails = true;
    token.addCertificate(Bytes{0x01}, certificateDer("p256"));
    token.addCertificate(Bytes{0x02}, certificateDer("p384"));
    EXPECT_TRUE(store.loadCertificates(p11, &slot, provider));
    EXPECT_EQ(2U, store.certificates().size());
    EXPECT_EQ("CertOpenSystemStore() failed\nCertOpenSystemStore() failed\n",
              messages(log.takeLines(), "ERR"));
    EXPECT_EQ(0U, token.openSessions());
    openFails = false;
}

}  // namespace NV::test
