// What the provider finds on the token: certificates of all kinds, and the keys filed for them.

#include "module_fixture.h"

namespace NV::test {

namespace {

class DiscoveryTest : public ModuleTest {
protected:
    // Opens a provider and keeps the lines of the opening.
    void discover()
    {
        module.emplace();
        forget();
        provider.emplace(*module);
        lines = takeLines();
    }

    SECURITY_STATUS openStatus(const wchar_t* name)
    {
        NCRYPT_KEY_HANDLE key = 0;
        return table()->OpenKey(handle(), &key, name, 0, 0);
    }

    // The names of all keys in the enumeration's order, with a blank behind each.
    std::string keyNames()
    {
        std::string names;
        void* state = nullptr;
        NCryptKeyName* record = nullptr;
        while (table()->EnumKeys(handle(), nullptr, &record, &state, 0) == ERROR_SUCCESS) {
            const std::wstring name = record->pszName;
            names += std::string(name.begin(), name.end()) + " ";
            table()->FreeBuffer(record);
        }
        table()->FreeBuffer(state);
        return names;
    }

    bool found(int count) const
    {
        return hasLine(lines, "DBG NV::P11CertObject::FindCertificates:Found " +
                                  std::to_string(count) + " Objects");
    }
    size_t published() const
    {
        return countLines(lines, "TRC NV::P11CertObject::AddToLocalStore:ENTER");
    }

    LogLines lines;
};

}  // namespace

TEST_F(DiscoveryTest, aTokenWithoutCertificates)
{
    discover();
    EXPECT_TRUE(found(0));
    EXPECT_EQ(0U, published());
    EXPECT_EQ("", keyNames());
    EXPECT_EQ("", messages(lines, "ERR"));
    EXPECT_EQ(status(ERROR_SUCCESS), table()->IsAlgSupported(handle(), L"RSA", 0));
}

TEST_F(DiscoveryTest, theTokenIsReadByTheseCalls)
{
    const std::string length = std::to_string(certificateDer("p256").size());
    token.addCertificate(Bytes{0x02, 0x56}, certificateDer("p256"));
    discover();
    const std::vector<std::string> calls = token.calls();
    // The discovery of slots comes first, between two finalises of its own.
    size_t begin = 0;
    for (int finalises = 0; begin < calls.size() && finalises < 2; ++begin)
        finalises += calls[begin].starts_with("C_Finalize") ? 1 : 0;
    ASSERT_LT(begin, calls.size());
    EXPECT_EQ("C_Initialize(initArgs={CreateMutex=given,DestroyMutex=given,LockMutex=given,"
              "UnlockMutex=given,flags=0x3,reserved=null})\n"
              "C_OpenSession(slot=52, flags=0x4, application=null, notify=null)\n"
              "C_FindObjectsInit(session=0x5E55, template={0x0=01000000,0x80=00000000})\n"
              "C_FindObjects(session=0x5E55, max=1024, objects=given, count=given)\n"
              "C_GetAttributeValue(session=0x5E55, object=0xB1, template={0x11=null})\n"
              "C_GetAttributeValue(session=0x5E55, object=0xB1, template={0x11=room[" +
                  length +
                  "]})\n"
                  "C_GetAttributeValue(session=0x5E55, object=0xB1, template={0x102=null})\n"
                  "C_GetAttributeValue(session=0x5E55, object=0xB1, template={0x102=room[2]})\n"
                  "C_FindObjectsFinal(session=0x5E55)\n"
                  "C_CloseSession(session=0x5E55)\n"
                  "C_Finalize(reserved=null)\n",
              joined({calls.begin() + static_cast<std::ptrdiff_t>(begin), calls.end()}));
}

TEST_F(DiscoveryTest, everyCurveAndLengthIsServed)
{
    token.addCertificate(Bytes{0x01}, certificateDer("rsa2048"));
    token.addCertificate(Bytes{0x02}, certificateDer("rsa1024"));
    token.addCertificate(Bytes{0x03}, certificateDer("p256"));
    token.addCertificate(Bytes{0x04}, certificateDer("p384"));
    token.addCertificate(Bytes{0x05}, certificateDer("p521"));
    discover();
    EXPECT_EQ("01 02 03 04 05 ", keyNames());
    for (const auto& [name, length] :
         {std::pair{L"01", 283U}, std::pair{L"02", 155U}, std::pair{L"03", 72U},
          std::pair{L"04", 104U}, std::pair{L"05", 140U}}) {
        DWORD written = 0;
        EXPECT_EQ(status(ERROR_SUCCESS),
                  table()->ExportKey(handle(), openKey(name), 0, L"PUBLICBLOB", nullptr, nullptr, 0,
                                     &written, 0));
        EXPECT_EQ(length, written);
    }
}

TEST_F(DiscoveryTest, exponent3IsExportedAs65537)
{
    token.addCertificate(Bytes{0x02}, certificateDer("rsa1024"));
    discover();
    Bytes blob(155);
    DWORD length = 0;
    EXPECT_EQ(status(ERROR_SUCCESS),
              table()->ExportKey(handle(), openKey(L"02"), 0, L"RSAPUBLICBLOB", nullptr,
                                 blob.data(), 155, &length, 0));
    EXPECT_EQ("010001", hexEncode(blob).substr(48, 6));
}

TEST_F(DiscoveryTest, aCertificateWithoutIdentifierHasAnEmptyName)
{
    token.addCertificate(std::nullopt, certificateDer("p256"));
    discover();
    EXPECT_TRUE(found(1));
    EXPECT_EQ(1U, published());
    EXPECT_TRUE(hasLine(lines, "TRC NV::P11CertObject::AddToLocalStore:ARG[0]:pwszContainerName="));
    EXPECT_EQ(" ", keyNames());
    EXPECT_EQ(status(ERROR_SUCCESS), openStatus(L""));
}

TEST_F(DiscoveryTest, ofTwoCertificatesWithOneIdentifierBothArePublishedAndTheFirstIsServed)
{
    token.addCertificate(Bytes{0x07}, certificateDer("p384"));
    token.addCertificate(Bytes{0x07}, certificateDer("rsa2048"));
    discover();
    EXPECT_TRUE(found(2));
    EXPECT_EQ(2U, published());
    EXPECT_EQ("07 ", keyNames());
    DWORD length = 0;
    EXPECT_EQ(status(ERROR_SUCCESS), table()->ExportKey(handle(), openKey(L"07"), 0, L"PUBLICBLOB",
                                                        nullptr, nullptr, 0, &length, 0));
    EXPECT_EQ(104U, length);
}

TEST_F(DiscoveryTest, anIdentifierOf20BytesIsANameOf40Characters)
{
    token.addCertificate(someBytes(20), certificateDer("p256"));
    discover();
    EXPECT_EQ("A0A1A2A3A4A5A6A7A8A9AAABACADAEAFB0B1B2B3 ", keyNames());
    EXPECT_EQ(status(ERROR_SUCCESS), openStatus(L"A0A1A2A3A4A5A6A7A8A9AAABACADAEAFB0B1B2B3"));
    EXPECT_EQ(status(NTE_INVALID_HANDLE), openStatus(L"a0a1a2a3a4a5a6a7a8a9aaabacadaeafb0b1b2b3"));
}

TEST_F(DiscoveryTest, aBrokenCertificateIsLoggedAndNotServed)
{
    token.addCertificate(Bytes{0x01}, Bytes{0x30, 0x03, 0x02, 0x01});
    token.addCertificate(Bytes{0x02}, Bytes{});
    token.addCertificate(Bytes{0x03}, certificateDer("p256"));
    discover();
    EXPECT_TRUE(found(3));
    EXPECT_EQ("03 ", keyNames());
    // Three readings and one publication of each of the two.
    EXPECT_EQ(8U, ofLevel(lines, "ERR").size());
    for (const LogLine& line : ofLevel(lines, "ERR"))
        EXPECT_EQ("CertCreateCertificateContext() failed", line.message);
}

TEST_F(DiscoveryTest, keysOfOtherAlgorithmsArePublishedButNotServed)
{
    token.addCertificate(Bytes{0x01}, certificateDer("ed25519"));
    discover();
    EXPECT_EQ(1U, published());
    EXPECT_EQ("", keyNames());
    EXPECT_TRUE(hasLine(lines, "TRC NV::KeyStore::addPublicKey:ARG[2]:oid = 1.3.101.112"));
    EXPECT_EQ("", messages(lines, "ERR"));
}

TEST_F(DiscoveryTest, anotherCurveOf256BitsIsServedAsP256)
{
    token.addCertificate(Bytes{0x01}, certificateDer("secp256k1"));
    discover();
    EXPECT_EQ("01 ", keyNames());
    EXPECT_TRUE(hasLine(lines, "DBG NV::P11CertObject::FindCertificates:KEYLENGTH = 256"));
}

TEST_F(DiscoveryTest, certificatesOfOtherTypesAndOtherObjectsAreNotSeen)
{
    token.addObject({numberAttribute(CKA_CLASS, CKO_CERTIFICATE),
                     numberAttribute(CKA_CERTIFICATE_TYPE, 1),
                     {CKA_ID, {0x01}},
                     {CKA_VALUE, certificateDer("p256")}});
    token.addRsaKeyPair({0x02}, 1024);
    discover();
    EXPECT_TRUE(found(0));
    EXPECT_EQ("", keyNames());
}

TEST_F(DiscoveryTest, anAttributeThatCannotBeReadLeavesItsFieldsEmpty)
{
    token.addCertificate(Bytes{0x01}, certificateDer("p256"));
    token.addCertificate(Bytes{0x02}, certificateDer("p384"));
    token.fail("C_GetAttributeValue", CKR_DEVICE_ERROR, 2);  // the first certificate's value
    discover();
    EXPECT_EQ("02 ", keyNames());
    EXPECT_EQ(2U, published());
    EXPECT_EQ("CertCreateCertificateContext() failed\n", messages(lines, "ERR"));
    EXPECT_TRUE(hasLine(lines, "TRC NV::KeyStore::addPublicKey:ARG[1]:id = 01"));
}

TEST_F(DiscoveryTest, aFailingSearchFindsNothingAndLogsNoError)
{
    token.addCertificate(Bytes{0x01}, certificateDer("p256"));
    for (const char* function : {"C_FindObjectsInit", "C_FindObjects"}) {
        token.fail(function, CKR_DEVICE_ERROR);
        provider.reset();
        module.reset();
        discover();
        EXPECT_EQ("", keyNames());
        EXPECT_EQ("", messages(lines, "ERR"));
        EXPECT_EQ(1U, token.calls("C_CloseSession").size());
        token.clearFaults();
    }
}

TEST_F(DiscoveryTest, certificatesAddedLaterAreSeenByTheNextOpening)
{
    token.addCertificate(Bytes{0x01}, certificateDer("p256"));
    discover();
    token.addCertificate(Bytes{0x02}, certificateDer("p384"));
    EXPECT_EQ("01 ", keyNames());
    EXPECT_EQ(status(NTE_INVALID_HANDLE), openStatus(L"02"));
    provider.reset();
    provider.emplace(*module);
    EXPECT_EQ("01 02 ", keyNames());
}

TEST_F(DiscoveryTest, onlyTheFirst1024CertificatesAreSeen)
{
    // Broken ones are refused at once, and without a log all is done in a moment.
    profile.writeConfig("logLevel=ERROR\nlogTypes=FILE\nlogStore=\nlogRotate=7\np11File=" +
                        narrowPath(ScriptedToken::widePath()) + "\n");
    for (uint32_t i = 0; i < 1025; ++i)
        token.addCertificate(Bytes{static_cast<CK_BYTE>(i >> 8), static_cast<CK_BYTE>(i)},
                             i == 0 || i >= 1023 ? certificateDer("p256") : Bytes{0x30});
    discover();
    EXPECT_EQ(4U * 1024, token.calls("C_GetAttributeValue").size());
    EXPECT_EQ("0000 03FF ", keyNames());
    EXPECT_EQ(status(NTE_INVALID_HANDLE), openStatus(L"0400"));
}

}  // namespace NV::test
