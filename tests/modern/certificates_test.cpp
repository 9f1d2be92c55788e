// M16 and M17: which certificates are keys, and the curves of these.

#include <algorithm>

#include "module_fixture.h"

namespace NV::test {

namespace {

class ModernDiscoveryTest : public ModernModuleTest {
protected:
    void discover()
    {
        module.emplace();
        forget();
        provider.emplace(*module);
        lines = takeLines();
        calls = token.calls();
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
    // The container names that certificates are published with, in the same form.
    std::string published() const
    {
        const std::string argument = "ARG[0]:pwszContainerName=";
        std::string names;
        for (const LogLine& line : ofFunction(lines, "NV::P11CertObject::AddToLocalStore")) {
            if (line.message.starts_with(argument))
                names += line.message.substr(argument.size()) + " ";
        }
        return names;
    }
    // The searches for public key objects.
    size_t publicKeySearches() const
    {
        return static_cast<size_t>(std::ranges::count_if(calls, [](const std::string& call) {
            return call.starts_with("C_FindObjectsInit") &&
                   call.find("0x0=02000000") != std::string::npos;
        }));
    }

    void addPublicKey(const Bytes& id)
    {
        token.addObject({numberAttribute(CKA_CLASS, CKO_PUBLIC_KEY), {CKA_ID, id}});
    }

    LogLines lines;
    std::vector<std::string> calls;
};

struct ServedCurve {
    const char* certificate;
    const wchar_t* algorithm;
    const wchar_t* curve;  // null: none
    uint32_t bits;
    uint32_t signatureLength;
};

class CurveTest : public ModernModuleTest, public testing::WithParamInterface<ServedCurve> {
protected:
    void SetUp() override
    {
        token.addCertificate(Bytes{0x01}, certificateDer(GetParam().certificate));
        token.addObject({numberAttribute(CKA_CLASS, CKO_PUBLIC_KEY), {CKA_ID, {0x01}}});
        start();
        key = openKey(L"01");
    }

    std::wstring textOf(const wchar_t* name)
    {
        std::wstring value(100, L'\0');
        DWORD length = 0;
        const auto room = static_cast<DWORD>(value.size() * sizeof(wchar_t));
        EXPECT_EQ(status(ERROR_SUCCESS),
                  table()->GetKeyProperty(handle(), key, name,
                                          reinterpret_cast<BYTE*>(value.data()), room, &length, 0));
        value.resize(value.find(L'\0'));
        return value;
    }
    DWORD numberOf(const wchar_t* name)
    {
        DWORD value = 0;
        DWORD length = 0;
        EXPECT_EQ(status(ERROR_SUCCESS),
                  table()->GetKeyProperty(handle(), key, name, reinterpret_cast<BYTE*>(&value), 4,
                                          &length, 0));
        return value;
    }

    NCRYPT_KEY_HANDLE key = 0;
};

}  // namespace

TEST_F(ModernDiscoveryTest, anAuthorityWithAPublicKeyObjectIsAKey)
{
    token.addCertificate(Bytes{0x01}, certificateDer("p256"));
    addPublicKey({0x01});
    discover();
    EXPECT_EQ("01 ", keyNames());
    EXPECT_EQ("01 ", published());
    EXPECT_EQ(1U, publicKeySearches());
}

TEST_F(ModernDiscoveryTest, anAuthorityWithoutOneIsNone)
{
    token.addCertificate(Bytes{0x01}, certificateDer("p256"));
    token.addCertificate(Bytes{0x02}, certificateDer("rsa2048"));
    addPublicKey({0x01, 0x01});
    addPublicKey({});
    addPublicKey({0x02});
    discover();
    EXPECT_EQ("02 ", keyNames());
    EXPECT_EQ("02 ", published());
    EXPECT_TRUE(hasLine(lines, "DBG NV::P11CertObject::keepKeys:Skip the certificate of an "
                               "authority, CKA_ID = 01"));
    EXPECT_EQ("", messages(lines, "ERR"));
    NCRYPT_KEY_HANDLE key = 0;
    EXPECT_EQ(status(NTE_BAD_KEYSET), table()->OpenKey(handle(), &key, L"01", 0, 0));
}

// A private key object is no proof: it cannot be seen without a login.
TEST_F(ModernDiscoveryTest, onlyAPublicKeyObjectCounts)
{
    token.addCertificate(Bytes{0x01}, certificateDer("p256"));
    token.addObject({numberAttribute(CKA_CLASS, CKO_PRIVATE_KEY), {CKA_ID, {0x01}}});
    discover();
    EXPECT_EQ("", keyNames());
    EXPECT_EQ("", published());
}

TEST_F(ModernDiscoveryTest, anAuthorityWhoseIdentifierAnotherCertificateHasIsNone)
{
    token.addCertificate(Bytes{0x01}, certificateDer("p384"));
    token.addCertificate(Bytes{0x01}, certificateDer("enduser"));
    addPublicKey({0x01});
    discover();
    EXPECT_EQ("01 ", keyNames());
    EXPECT_EQ("01 ", published());
    EXPECT_EQ(0U, publicKeySearches());
    // Of the end user's P-256 key, not of the authority's P-384 key, which comes first.
    DWORD length = 0;
    EXPECT_EQ(status(ERROR_SUCCESS), table()->ExportKey(handle(), openKey(L"01"), 0, L"PUBLICBLOB",
                                                        nullptr, nullptr, 0, &length, 0));
    EXPECT_EQ(72U, length);
}

TEST_F(ModernDiscoveryTest, ofTwoAuthoritiesWithOneIdentifierNeitherIsAKey)
{
    token.addCertificate(Bytes{0x01}, certificateDer("p384"));
    token.addCertificate(Bytes{0x01}, certificateDer("p256"));
    addPublicKey({0x01});
    discover();
    EXPECT_EQ("", keyNames());
    EXPECT_EQ("", published());
}

TEST_F(ModernDiscoveryTest, anEndUsersCertificateNeedsNoPublicKeyObject)
{
    token.addCertificate(Bytes{0x01}, certificateDer("enduser"));
    token.addCertificate(Bytes{0x02}, certificateDer("unconstrained"));
    discover();
    EXPECT_EQ("01 02 ", keyNames());
    EXPECT_EQ("01 02 ", published());
    EXPECT_EQ(0U, publicKeySearches());
}

TEST_F(ModernDiscoveryTest, ofTwoEndUsersWithOneIdentifierBothArePublishedAndTheFirstIsServed)
{
    token.addCertificate(Bytes{0x01}, certificateDer("enduser"));
    token.addCertificate(Bytes{0x01}, certificateDer("unconstrained"));
    discover();
    EXPECT_EQ("01 ", keyNames());
    EXPECT_EQ("01 01 ", published());
}

TEST_F(ModernDiscoveryTest, withoutAnIdentifierACertificateIsNoKey)
{
    token.addCertificate(std::nullopt, certificateDer("enduser"));
    token.addCertificate(Bytes{}, certificateDer("unconstrained"));
    token.addCertificate(Bytes{}, certificateDer("p256"));
    addPublicKey({});
    discover();
    EXPECT_EQ("", keyNames());
    EXPECT_EQ("", published());
    EXPECT_EQ(3U, countLines(lines, "DBG NV::P11CertObject::keepKeys:Skip a certificate without "
                                    "CKA_ID"));
    EXPECT_EQ(0U, publicKeySearches());
}

TEST_F(ModernDiscoveryTest, anIdentifierThatCannotBeReadIsNone)
{
    token.addCertificate(Bytes{0x01}, certificateDer("enduser"));
    token.fail("C_GetAttributeValue", CKR_DEVICE_ERROR, 4);
    discover();
    EXPECT_EQ("", keyNames());
    EXPECT_EQ("", published());
}

TEST_F(ModernDiscoveryTest, aBrokenCertificateIsLoggedAndNotServed)
{
    token.addCertificate(Bytes{0x01}, Bytes{0x30, 0x03, 0x02, 0x01});
    token.addCertificate(Bytes{0x02}, certificateDer("enduser"));
    discover();
    EXPECT_EQ("02 ", keyNames());
    EXPECT_EQ("01 02 ", published());
}

TEST_F(ModernDiscoveryTest, aSearchThatFailsFindsNoPublicKeyAndTheNextOneIsMade)
{
    // The first search is for certificates.
    for (const char* function : {"C_FindObjectsInit", "C_FindObjects"}) {
        token.clearObjects();
        token.addCertificate(Bytes{0x01}, certificateDer("p256"));
        token.addCertificate(Bytes{0x02}, certificateDer("p384"));
        addPublicKey({0x01});
        addPublicKey({0x02});
        token.fail(function, CKR_DEVICE_ERROR, 2);
        provider.reset();
        module.reset();
        discover();
        EXPECT_EQ("02 ", keyNames()) << function;
        EXPECT_EQ("02 ", published()) << function;
        token.clearFaults();
    }
}

// A search that is still active makes the next one in its session fail.
TEST_F(ModernDiscoveryTest, searchesThatDoNotEndHideNoKey)
{
    for (CK_BYTE id = 1; id <= 3; ++id) {
        token.addCertificate(Bytes{id}, certificateDer("p256"));
        addPublicKey({id});
    }
    token.fail("C_FindObjectsFinal", CKR_DEVICE_ERROR);
    discover();
    EXPECT_EQ("01 02 03 ", keyNames());
    EXPECT_EQ("01 02 03 ", published());
    EXPECT_EQ(0U, token.openSessions());
}

// The token gives no other session: what cannot be searched is no key, and no handle is used that the
// token may have given to somebody else.
TEST_F(ModernDiscoveryTest, withoutANewSessionTheLaterSearchesFail)
{
    for (CK_BYTE id = 1; id <= 2; ++id) {
        token.addCertificate(Bytes{id}, certificateDer("p256"));
        addPublicKey({id});
    }
    token.fail("C_FindObjectsFinal", CKR_DEVICE_ERROR);
    token.fail("C_OpenSession", CKR_SESSION_COUNT, 2);
    discover();
    EXPECT_EQ("02 ", keyNames());
    EXPECT_EQ(0U, token.openSessions());
}

TEST_F(ModernDiscoveryTest, thePublicKeyIsSearchedByTheseCallsWithoutALogin)
{
    token.addCertificate(Bytes{0x02, 0x56}, certificateDer("p256"));
    addPublicKey({0x02, 0x56});
    discover();
    std::string searches;
    for (const std::string& call : calls) {
        EXPECT_FALSE(call.starts_with("C_Login"));
        if (call.starts_with("C_Find"))
            searches += call + "\n";
    }
    EXPECT_EQ("C_FindObjectsInit(session=0x5E55, template={0x0=01000000,0x80=00000000})\n"
              "C_FindObjects(session=0x5E55, max=1024, objects=given, count=given)\n"
              "C_FindObjectsFinal(session=0x5E55)\n"
              "C_FindObjectsInit(session=0x5E55, template={0x0=02000000,0x102=0256})\n"
              "C_FindObjects(session=0x5E55, max=1024, objects=given, count=given)\n"
              "C_FindObjectsFinal(session=0x5E55)\n",
              searches);
    EXPECT_EQ(0U, token.openSessions());
}

// Classic serves and publishes all of them; discovery_test.cpp has more of it.
TEST_F(ModuleTest, classicTakesAuthoritiesWithoutAPublicKeyObject)
{
    token.addCertificate(Bytes{0x01}, certificateDer("p256"));
    start();
    EXPECT_NE(0U, openKey(L"01"));
    EXPECT_TRUE(token.calls().empty());
}

TEST_P(CurveTest, isToldByItsIdentifier)
{
    EXPECT_EQ(GetParam().algorithm, textOf(L"Algorithm Name"));
    EXPECT_EQ(L"ECDSA", textOf(L"Algorithm Group"));
    EXPECT_EQ(GetParam().bits, numberOf(L"Length"));
    EXPECT_EQ(GetParam().signatureLength, numberOf(L"SignatureLength"));
    if (GetParam().curve != nullptr) {
        EXPECT_EQ(GetParam().curve, textOf(L"ECCCurveName"));
        return;
    }
    BYTE byte = 0xEE;
    DWORD length = 0xEE;
    EXPECT_EQ(status(NTE_NOT_SUPPORTED),
              table()->GetKeyProperty(handle(), key, L"ECCCurveName", &byte, 1, &length, 0));
    EXPECT_EQ(0xEEU, length);
}

TEST_P(CurveTest, hasSignaturesOfTwoCoordinates)
{
    Bytes hash = someBytes(32);
    DWORD length = 0;
    EXPECT_EQ(status(ERROR_SUCCESS),
              table()->SignHash(handle(), key, nullptr, hash.data(), 32, nullptr, 0, &length, 0));
    EXPECT_EQ(GetParam().signatureLength, length);
}

INSTANTIATE_TEST_SUITE_P(Curves, CurveTest,
                         testing::Values(ServedCurve{"p256", L"ECDSA_P256", L"nistP256", 256, 64},
                                         ServedCurve{"p384", L"ECDSA_P384", L"nistP384", 384, 96},
                                         ServedCurve{"p521", L"ECDSA_P521", L"nistP521", 521, 132},
                                         ServedCurve{"secp256k1", L"ECDSA", nullptr, 256, 64},
                                         ServedCurve{"brainpoolP320r1", L"ECDSA", nullptr, 320, 80},
                                         ServedCurve{"explicit256", L"ECDSA", nullptr, 256, 64}),
                         [](const auto& row) { return std::string(row.param.certificate); });

}  // namespace NV::test
