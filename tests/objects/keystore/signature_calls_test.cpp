// The PKCS#11 calls of signing and verifying, literally, for every padding and hash.

#include "key_fixture.h"
#include "operation_calls.h"

namespace NV::test {

namespace {

enum class Information { none, pkcs1, pss };

constexpr const char* raw = "mechanism=0x1, parameter=null";
constexpr DWORD saltLength = 0x44332211;  // no byte of it is another one

// How a caller asks for a signature of a hash of `hashLength` bytes, and what the token must get.
struct SignatureRow {
    const char* name;
    DWORD flags;
    Information information;
    const wchar_t* hash;
    size_t hashLength;
    const char* digestInfo = "";
    const char* signMechanism = raw;
    const char* verifyMechanism = raw;
    CK_MECHANISM_TYPE signType = CKM_RSA_PKCS;
    CK_MECHANISM_TYPE verifyType = CKM_RSA_PKCS;
};

void PrintTo(const SignatureRow& row, std::ostream* out)
{
    *out << row.name;
}

// The token adds the DigestInfo when it verifies.
constexpr SignatureRow pkcs1Row(const char* name, DWORD flags, const wchar_t* hash,
                                size_t hashLength, const char* digestInfo, const char* verify,
                                CK_MECHANISM_TYPE verifyType)
{
    return {name, flags,  Information::pkcs1, hash,      hashLength, digestInfo,
            raw,  verify, CKM_RSA_PKCS,       verifyType};
}

constexpr SignatureRow pssRow(const char* name, DWORD flags, const wchar_t* hash, size_t hashLength,
                              const char* mechanism)
{
    return {name,
            flags,
            Information::pss,
            hash,
            hashLength,
            "",
            mechanism,
            mechanism,
            CKM_RSA_PKCS_PSS,
            CKM_RSA_PKCS_PSS};
}

constexpr const char* sha256Info = "3031300D060960864801650304020105000420";
constexpr const char* sha256Pss = "mechanism=0xD, parameter=500200000200000011223344";

constexpr SignatureRow rows[] = {
    {"noFlags", 0, Information::none, nullptr, 32},
    {"noFlagsWithInformation", 0, Information::pkcs1, L"SHA256", 32},
    {"pkcs1WithoutInformation", 0x2, Information::none, nullptr, 32},
    {"pkcs1WithoutHashName", 0x2, Information::pkcs1, nullptr, 36},
    // The bare hash is signed: no DigestInfo for SHA-1.
    pkcs1Row("pkcs1Sha1", 0x2, L"SHA1", 20, "", "mechanism=0x6, parameter=null", CKM_SHA1_RSA_PKCS),
    pkcs1Row("pkcs1Sha256", 0x2, L"SHA256", 32, sha256Info, "mechanism=0x40, parameter=null",
             CKM_SHA256_RSA_PKCS),
    pkcs1Row("pkcs1Sha384", 0x2, L"SHA384", 48, "3041300D060960864801650304020205000430",
             "mechanism=0x41, parameter=null", CKM_SHA384_RSA_PKCS),
    pkcs1Row("pkcs1Sha512", 0x2, L"SHA512", 64, "3051300D060960864801650304020305000440",
             "mechanism=0x42, parameter=null", CKM_SHA512_RSA_PKCS),
    {"pkcs1Md5", 0x2, Information::pkcs1, L"MD5", 16},
    {"pkcs1LowerCaseName", 0x2, Information::pkcs1, L"sha256", 32},
    {"pkcs1LongerName", 0x2, Information::pkcs1, L"SHA2560", 32},
    {"pssWithoutInformation", 0x8, Information::none, nullptr, 32},
    pssRow("pssSha1", 0x8, L"SHA1", 20, "mechanism=0xD, parameter=200200000100000011223344"),
    pssRow("pssSha256", 0x8, L"SHA256", 32, sha256Pss),
    pssRow("pssSha384", 0x8, L"SHA384", 48, "mechanism=0xD, parameter=600200000300000011223344"),
    pssRow("pssSha512", 0x8, L"SHA512", 64, "mechanism=0xD, parameter=700200000400000011223344"),
    {"pssMd5", 0x8, Information::pss, L"MD5", 16},
    pssRow("pkcs1AndPssSha256", 0xA, L"SHA256", 32, sha256Pss),
    pkcs1Row("silentPkcs1Sha256", 0x42, L"SHA256", 32, sha256Info, "mechanism=0x40, parameter=null",
             CKM_SHA256_RSA_PKCS),
    // The flag of another operation's padding chooses nothing.
    {"oaepFlag", 0x4, Information::pkcs1, L"SHA256", 32},
};

class RsaSignatureCallsTest : public KeyTest, public testing::WithParamInterface<SignatureRow> {
protected:
    void* padding()
    {
        switch (GetParam().information) {
        case Information::pkcs1:
            return &pkcs1_;
        case Information::pss:
            return &pss_;
        default:
            return nullptr;
        }
    }

    const Bytes hash = someBytes(GetParam().hashLength);

private:
    BCRYPT_PKCS1_PADDING_INFO pkcs1_{GetParam().hash};
    BCRYPT_PSS_PADDING_INFO pss_{GetParam().hash, saltLength};
};

class SignatureCallsTest : public KeyTest {};

}  // namespace

TEST_P(RsaSignatureCallsTest, sign)
{
    const SignatureRow& row = GetParam();
    const Result result = run(
        {.operation = Operation::rsaSign, .flags = row.flags, .padding = padding(), .input = hash});
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, result.status);
    const std::string data = row.digestInfo + hexEncode(hash);
    EXPECT_EQ(privateKeyCalls(rsaKey, std::string("C_SignInit(session=0x5E55, ") +
                                          row.signMechanism +
                                          ", key=0xB2)\nC_Sign(session=0x5E55, data=" + data +
                                          ", signature=room[256])\n"),
              joined(token.calls()));
    EXPECT_EQ(signatureOf(row.signType, hexDecode(data), 256), result.output);
    EXPECT_FALSE(token.initialised());
}

TEST_P(RsaSignatureCallsTest, verify)
{
    const SignatureRow& row = GetParam();
    const Bytes signature = signatureOf(row.verifyType, hash, 256);
    const Result result = run({.operation = Operation::rsaVerify,
                               .flags = row.flags,
                               .padding = padding(),
                               .input = hash,
                               .signature = signature});
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, result.status);
    EXPECT_EQ(
        publicKeyCalls(rsaKey, std::string("C_VerifyInit(session=0x5E55, ") + row.verifyMechanism +
                                   ", key=0xB1)\nC_Verify(session=0x5E55, data=" + hexEncode(hash) +
                                   ", signature=" + hexEncode(signature) + ")\n"),
        joined(token.calls()));
}

// The token reads a parameter block again when the work is done.
TEST_P(RsaSignatureCallsTest, parametersLiveUntilTheWorkIsDone)
{
    token.setParametersReread(true);
    const Result result = run({.operation = Operation::rsaSign,
                               .flags = GetParam().flags,
                               .padding = padding(),
                               .input = hash});
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, result.status);
}

INSTANTIATE_TEST_SUITE_P(Paddings, RsaSignatureCallsTest, testing::ValuesIn(rows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(SignatureCallsTest, ecSignSendsTheHashAsItIs)
{
    BCRYPT_PKCS1_PADDING_INFO padding{L"SHA256"};
    for (const DWORD flags : {0x0U, 0x2U, 0x8U}) {
        token.reset();
        ecPair = token.addEcKeyPair({0x02, 0x56}, 32);
        const Result result = run({.operation = Operation::ecSign,
                                   .flags = flags,
                                   .padding = &padding,
                                   .input = someBytes(8),
                                   .room = 64});
        EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, result.status);
        EXPECT_EQ(privateKeyCalls(
                      ecKey,
                      "C_SignInit(session=0x5E55, mechanism=0x1041, parameter=null, key=0xB2)\n"
                      "C_Sign(session=0x5E55, data=A0A1A2A3A4A5A6A7, signature=room[64])\n"),
                  joined(token.calls()));
        EXPECT_EQ(signatureOf(CKM_ECDSA, someBytes(8), 64), result.output);
    }
}

TEST_F(SignatureCallsTest, ecVerifyPassesHashAndRawSignature)
{
    const Bytes signature = signatureOf(CKM_ECDSA, someBytes(8), 64);
    const Result result =
        run({.operation = Operation::ecVerify, .input = someBytes(8), .signature = signature});
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, result.status);
    EXPECT_EQ(
        publicKeyCalls(ecKey,
                       "C_VerifyInit(session=0x5E55, mechanism=0x1041, parameter=null, key=0xB3)\n"
                       "C_Verify(session=0x5E55, data=A0A1A2A3A4A5A6A7, signature=" +
                           hexEncode(signature) + ")\n"),
        joined(token.calls()));
}

TEST_F(SignatureCallsTest, p384SignatureHas96BytesAndP521Has132)
{
    token.addEcKeyPair({0x03, 0x84}, 48);
    token.addEcKeyPair({0x05, 0x21}, 66);
    for (const auto& [name, fixture, bits, length] :
         {std::tuple{L"0384", "p384", 384U, size_t{96}},
          std::tuple{L"0521", "p521", 521U, size_t{132}}}) {
        ec = makeEcKey(name, fixture, bits);
        const Result result = run({.operation = Operation::ecSign, .room = 140});
        EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, result.status);
        EXPECT_FALSE(log.takeLines().empty());
        Bytes expected = signatureOf(CKM_ECDSA, someBytes(32), length);
        expected.resize(140, 0xEE);
        EXPECT_EQ(expected, result.output);
        EXPECT_EQ(length, ec->signatureLength());
    }
}

TEST_F(SignatureCallsTest, longNamesAreDecodedToLongIdentifiers)
{
    const Bytes id = someBytes(20);
    token.addRsaKeyPair(id, 1024);
    rsa = makeRsaKey(L"A0A1A2A3A4A5A6A7A8A9AAABACADAEAFB0B1B2B3");
    forget();
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, run({.operation = Operation::rsaSign}).status);
    EXPECT_EQ("C_FindObjectsInit(session=0x5E55, template={0x0=03000000,0x100=00000000,"
              "0x102=A0A1A2A3A4A5A6A7A8A9AAABACADAEAFB0B1B2B3})\n",
              joined(token.calls("C_FindObjectsInit")));
}

TEST_F(SignatureCallsTest, anEmptyNameSearchesAnEmptyIdentifier)
{
    rsa = makeRsaKey(L"");
    forget();
    EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR}, run({.operation = Operation::rsaSign}).status);
    EXPECT_EQ(1U, token.calls("C_FindObjectsInit").size());
    EXPECT_NE(std::string::npos,
              token.calls("C_FindObjectsInit")[0].find("0x0=03000000,0x100=00000000,0x102="));
}

TEST_F(SignatureCallsTest, theKeysOwnSlotIsUsed)
{
    token.addSlot(kOtherSlot);
    token.addRsaKeyPair({0x77}, 1024, kOtherSlot);
    rsa = makeRsaKey(L"77");
    rsa->setSlotId(kOtherSlot);
    forget();
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, run({.operation = Operation::rsaSign}).status);
    EXPECT_EQ("C_OpenSession(slot=77, flags=0x4, application=null, notify=null)\n",
              joined(token.calls("C_OpenSession")));
}

TEST_F(SignatureCallsTest, aShortSignatureBufferFailsAndStaysInItsBounds)
{
    Bytes hash = someBytes(32);
    Bytes guarded(100, 0xEE);
    DWORD length = 0;
    EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR},
              rsa->sign(&p11, nullptr, hash.data(), 32, guarded.data(), 50, &length, 0, pin()));
    EXPECT_EQ(Bytes(100, 0xEE), guarded);
    EXPECT_EQ("Failed to sign Process (00000150(CKR_BUFFER_TOO_SMALL))\n",
              messages(log.takeLines(), "ERR"));
    EXPECT_EQ(0U, token.openSessions());
}

TEST_F(SignatureCallsTest, aTokenThatLiesAboutTheLengthIsNotReadPastTheBuffer)
{
    token.lengthPastBuffer("C_Sign");
    const Result result = run({.operation = Operation::rsaSign});
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, result.status);
    EXPECT_TRUE(hasLine(log.takeLines(), "TRC NV::P11RSAKeyObject::sign:Success to sign data "
                                         "256(bytes) for Signature"));
}

TEST_F(SignatureCallsTest, aHashLongerThanTheKeyFails)
{
    const Result result = run({.operation = Operation::rsaSign, .input = someBytes(300)});
    EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR}, result.status);
    EXPECT_EQ(Bytes(256, 0xEE), result.output);
    EXPECT_EQ("Failed to sign Process (00000021(CKR_DATA_LEN_RANGE))\n",
              messages(log.takeLines(), "ERR"));
}

TEST_F(SignatureCallsTest, aSignatureThatDoesNotVerifyIsAnInternalError)
{
    EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR}, run({.operation = Operation::rsaVerify}).status);
    EXPECT_EQ("Failed to verify Process (000000c0(CKR_SIGNATURE_INVALID))\n",
              messages(log.takeLines(), "ERR"));
    EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR},
              run({.operation = Operation::ecVerify, .signature = Bytes(64)}).status);
    EXPECT_EQ("Failed to verify Process (000000c0(CKR_SIGNATURE_INVALID))\n",
              messages(log.takeLines(), "ERR"));
    EXPECT_FALSE(token.initialised());
}

TEST_F(SignatureCallsTest, aWrongPinEndsTheOperation)
{
    Bytes hash = someBytes(32);
    Bytes signature(256, 0xEE);
    DWORD length = 0;
    EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR},
              rsa->sign(&p11, nullptr, hash.data(), 32, signature.data(), 256, &length, 0,
                        pin("wrong-pin")));
    EXPECT_EQ("Failed to login the token (000000a0(CKR_PIN_INCORRECT))\n",
              messages(log.takeLines(), "ERR"));
    EXPECT_EQ("C_Login(session=0x5E55, userType=1, pin=wrong-pin)\n",
              joined(token.calls("C_Login")));
    EXPECT_TRUE(token.calls("C_Logout").empty());
    EXPECT_EQ(1U, token.calls("C_CloseSession").size());
}

}  // namespace NV::test
