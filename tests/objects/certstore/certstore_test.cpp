// What is read out of a certificate, and the discovery of the token's certificates.

#include "certstore/certstore.h"
#include "key_fixture.h"

namespace NV::test {

namespace {

struct CertificateRow {
    const char* fixture;
    const wchar_t* oid;
    uint32_t bits;
};

void PrintTo(const CertificateRow& row, std::ostream* out)
{
    *out << row.fixture;
}

class CertificateTest : public testing::Test {
protected:
    LogCapture log;
};

class EveryCertificateTest : public CertificateTest,
                             public testing::WithParamInterface<CertificateRow> {
protected:
    const std::string base64 = base64Encode(certificateDer(GetParam().fixture));
};

// A call layer with an open session on the slot.
class FindCertificatesTest : public KeyTest {
protected:
    FindCertificatesTest()
    {
        token.clearObjects();
        slot.setId(kSlot);
        EXPECT_EQ(CKR_OK, p11.C_Initialize(nullptr));
        EXPECT_EQ(CKR_OK, p11.C_OpenSession(kSlot, CKF_SERIAL_SESSION, nullptr, nullptr, &session));
        forget();
    }
    ~FindCertificatesTest() override { p11.C_Finalize(nullptr); }

    P11CertObject::ByHandle find() { return P11CertObject::FindCertificates(p11, slot, session); }

    P11Slot slot;
    CK_SESSION_HANDLE session = 0;
};

constexpr const char* findCertificates = "NV::P11CertObject::FindCertificates";

}  // namespace

TEST_P(EveryCertificateTest, publicKeyIsTheContentOfTheBitString)
{
    EXPECT_EQ(base64Encode(certificateKey(GetParam().fixture)),
              P11CertObject::extractPublicKey(base64));
    expectBlock(log.takeLines(), R"(
TRC NV::P11CertObject::extractPublicKey:ENTER
TRC NV::P11CertObject::extractPublicKey:LEAVE
)");
}

TEST_P(EveryCertificateTest, algorithmIsItsOid)
{
    EXPECT_EQ(GetParam().oid, P11CertObject::extractAlgoOid(base64));
}

TEST_P(EveryCertificateTest, lengthIsInBits)
{
    EXPECT_EQ(GetParam().bits, P11CertObject::extractKeyLength(base64));
    expectBlock(log.takeLines(),
                "TRC NV::P11CertObject::extractKeyLength:ENTER\n"
                "TRC NV::P11CertObject::extractKeyLength:CERT_SUBJECT_PUB_KEY_BIT_LENGTH_PROP_ID=" +
                    std::to_string(GetParam().bits) +
                    "\nTRC NV::P11CertObject::extractKeyLength:LEAVE\n");
}

TEST_P(EveryCertificateTest, subjectIsItsCommonName)
{
    const std::string name = GetParam().fixture;
    EXPECT_EQ(L"KeyWarden " + std::wstring(name.begin(), name.end()),
              P11CertObject::extractSubject(base64));
}

INSTANTIATE_TEST_SUITE_P(Certificates, EveryCertificateTest,
                         testing::Values(CertificateRow{"rsa2048", L"1.2.840.113549.1.1.1", 2048},
                                         CertificateRow{"rsa1024", L"1.2.840.113549.1.1.1", 1024},
                                         CertificateRow{"p256", L"1.2.840.10045.2.1", 256},
                                         CertificateRow{"p384", L"1.2.840.10045.2.1", 384},
                                         CertificateRow{"p521", L"1.2.840.10045.2.1", 521},
                                         CertificateRow{"secp256k1", L"1.2.840.10045.2.1", 256}),
                         [](const auto& row) { return std::string(row.param.fixture); });

TEST_F(CertificateTest, anotherAlgorithmHasItsOidAndItsKey)
{
    const std::string base64 = base64Encode(certificateDer("ed25519"));
    EXPECT_EQ(L"1.3.101.112", P11CertObject::extractAlgoOid(base64));
    EXPECT_EQ(base64Encode(certificateKey("ed25519")), P11CertObject::extractPublicKey(base64));
}

TEST_F(CertificateTest, whatIsNoCertificateGivesNothingAndAnError)
{
    const Bytes whole = certificateDer("p256");
    const Bytes cut(whole.begin(), whole.end() - 1);
    for (const std::string& text :
         {std::string(), std::string("MAA="), std::string("!"), base64Encode(cut)}) {
        EXPECT_EQ("", P11CertObject::extractPublicKey(text));
        EXPECT_EQ(L"", P11CertObject::extractAlgoOid(text));
        EXPECT_EQ(0U, P11CertObject::extractKeyLength(text));
        EXPECT_EQ(L"", P11CertObject::extractSubject(text));
        EXPECT_EQ("CertCreateCertificateContext() failed\n"
                  "CertCreateCertificateContext() failed\n"
                  "CertCreateCertificateContext() failed\n"
                  "CertCreateCertificateContext() failed\n",
                  messages(log.takeLines(), "ERR"));
    }
}

TEST_F(FindCertificatesTest, readsEverythingOfACertificate)
{
    const CK_OBJECT_HANDLE handle =
        token.addCertificate(Bytes{0x01, 0xAB}, certificateDer("rsa2048"));
    const P11CertObject::ByHandle found = find();
    ASSERT_EQ(1U, found.size());
    const P11CertObject& certificate = *found.at(handle);
    EXPECT_EQ(kSlot, certificate.slotId());
    EXPECT_EQ(L"01AB", certificate.keyName());
    EXPECT_EQ(L"1.2.840.113549.1.1.1", certificate.algorithmOid());
    EXPECT_EQ(base64Encode(certificateDer("rsa2048")), certificate.certificate());
    EXPECT_EQ(base64Encode(certificateKey("rsa2048")), certificate.publicKey());
    EXPECT_EQ(2048U, certificate.keyLength());
}

TEST_F(FindCertificatesTest, isTraced)
{
    const Bytes der = certificateDer("p256");
    token.addCertificate(Bytes{0x02, 0x56}, der);
    find();
    std::string text;
    for (const LogLine& line : ofFunction(log.takeLines(), findCertificates))
        text += line.level + " " + line.message + "\n";
    EXPECT_EQ("TRC ENTER\nDBG Found 1 Objects\nDBG Found CKA_VALUE Attribute " +
                  std::to_string(der.size()) + " bytes\nDBG CKA_VALUE = " + base64Encode(der) +
                  "\nDBG PUBLICKEY = " + base64Encode(certificateKey("p256")) +
                  "\nDBG KEYLENGTH = 256\nDBG ALGOObjID = 1.2.840.10045.2.1\n"
                  "DBG Found CKA_ID Attribute 2 bytes\nDBG CKA_ID = 0256\nTRC LEAVE\n",
              text);
}

TEST_F(FindCertificatesTest, readsInTheTokensOrderByTheseCalls)
{
    token.addCertificate(Bytes{0x01, 0xAB}, Bytes{0x30, 0x00});
    token.addCertificate(std::nullopt, Bytes{0x30});
    find();
    EXPECT_EQ("C_FindObjectsInit(session=0x5E55, template={0x0=01000000,0x80=00000000})\n"
              "C_FindObjects(session=0x5E55, max=1024, objects=given, count=given)\n"
              "C_GetAttributeValue(session=0x5E55, object=0xB5, template={0x11=null})\n"
              "C_GetAttributeValue(session=0x5E55, object=0xB5, template={0x11=room[2]})\n"
              "C_GetAttributeValue(session=0x5E55, object=0xB5, template={0x102=null})\n"
              "C_GetAttributeValue(session=0x5E55, object=0xB5, template={0x102=room[2]})\n"
              "C_GetAttributeValue(session=0x5E55, object=0xB6, template={0x11=null})\n"
              "C_GetAttributeValue(session=0x5E55, object=0xB6, template={0x11=room[1]})\n"
              "C_GetAttributeValue(session=0x5E55, object=0xB6, template={0x102=null})\n"
              "C_FindObjectsFinal(session=0x5E55)\n",
              joined(token.calls()));
}

TEST_F(FindCertificatesTest, withoutCertificatesLogsZero)
{
    EXPECT_TRUE(find().empty());
    EXPECT_EQ("Found 0 Objects\n", messages(ofFunction(log.takeLines(), findCertificates), "DBG"));
    EXPECT_EQ(1U, token.calls("C_FindObjectsFinal").size());
}

TEST_F(FindCertificatesTest, aFailingSearchIsEmptyAndLogsNothing)
{
    token.addCertificate(Bytes{0x01}, certificateDer("p256"));
    for (const char* function : {"C_FindObjectsInit", "C_FindObjects"}) {
        token.fail(function, CKR_DEVICE_ERROR);
        EXPECT_TRUE(find().empty());
        const LogLines lines = ofFunction(log.takeLines(), findCertificates);
        EXPECT_EQ(2U, lines.size());
        token.clearFaults();
        p11.C_FindObjectsFinal(session);
        forget();
    }
}

// Which call fails, and what is still known of the certificate.
TEST_F(FindCertificatesTest, anAttributeThatFailsLeavesItsFieldsEmpty)
{
    token.addCertificate(Bytes{0x01, 0xAB}, certificateDer("p256"));
    struct Row {
        uint32_t failing;
        bool certificate;
        bool name;
    };
    for (const Row& row :
         {Row{1, false, true}, Row{2, false, true}, Row{3, true, false}, Row{4, true, false}}) {
        token.fail("C_GetAttributeValue", CKR_DEVICE_ERROR, row.failing);
        const P11CertObject::ByHandle found = find();
        ASSERT_EQ(1U, found.size());
        const P11CertObject& certificate = *found.begin()->second;
        EXPECT_EQ(row.certificate, !certificate.certificate().empty()) << row.failing;
        EXPECT_EQ(row.certificate, !certificate.publicKey().empty()) << row.failing;
        EXPECT_EQ(row.certificate, !certificate.algorithmOid().empty()) << row.failing;
        EXPECT_EQ(row.certificate ? 256U : 0U, certificate.keyLength()) << row.failing;
        EXPECT_EQ(row.name ? L"01AB" : L"", certificate.keyName()) << row.failing;
        token.clearFaults();
    }
    EXPECT_EQ("", messages(log.takeLines(), "ERR"));
}

TEST_F(FindCertificatesTest, aTokenThatLiesAboutLengthsIsNotBelieved)
{
    const Bytes der = certificateDer("p256");
    token.addCertificate(Bytes{0x01, 0xAB}, der);
    token.lengthPastBuffer("C_GetAttributeValue");
    const P11CertObject::ByHandle found = find();
    ASSERT_EQ(1U, found.size());
    EXPECT_EQ(base64Encode(der), found.begin()->second->certificate());
    EXPECT_EQ(L"01AB", found.begin()->second->keyName());
}

TEST_F(FindCertificatesTest, aTokenThatReportsTooManyObjectsIsReadToTheBuffersEnd)
{
    token.addCertificate(Bytes{0x01, 0xAB}, Bytes{0x30});
    token.lengthPastBuffer("C_FindObjects");
    find();
    EXPECT_EQ("Found 1024 Objects\n",
              ofLevel(ofFunction(log.takeLines(), findCertificates), "DBG").at(0).message + "\n");
}

}  // namespace NV::test
