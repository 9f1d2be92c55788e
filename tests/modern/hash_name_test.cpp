// Hash names of signatures, and verification as the counterpart of signing: M5 and M6.

#include "operation_fixture.h"

namespace NV::test {

namespace {

struct Named {
    const wchar_t* name;
    DWORD size;
    const char* digestInfo;
    CK_MECHANISM_TYPE pss;  // the hash of PSS; 0: not one of PSS
};

constexpr Named names[] = {
    {L"MD5", 16, "3020300C06082A864886F70D020505000410", 0},
    {L"SHA1", 20, "3021300906052B0E03021A05000414", CKM_SHA_1},
    {L"SHA256", 32, "3031300D060960864801650304020105000420", CKM_SHA256},
    {L"SHA384", 48, "3041300D060960864801650304020205000430", CKM_SHA384},
    {L"SHA512", 64, "3051300D060960864801650304020305000440", CKM_SHA512},
};

constexpr const wchar_t* unknownNames[] = {L"",        L"MD2",    L"sha256",  L"SHA-256",
                                           L"SHA256 ", L"SHA224", L"SHA2560", L"RSA"};

class HashNameTest : public TokenOperationTest {
protected:
    // Signs; gives what the token was asked to sign.
    std::string signedData(void* padding, DWORD flags)
    {
        token.clearCalls();
        EXPECT_EQ(status(ERROR_SUCCESS), withPin([&] { return sign(rsa, 256, padding, flags); }));
        return joined(token.calls("C_SignInit")) + joined(token.calls("C_Sign"));
    }
    // Signing, asking for the length, and verifying are all refused.
    void expectAllRefused(SECURITY_STATUS expected, void* padding, DWORD flags)
    {
        expectRefused(expected, sign(rsa, 256, padding, flags));
        expectRefused(expected, sign(rsa, 0, padding, flags));
        expectRefused(expected, verify(rsa, Bytes(256), padding, flags));
    }
    static bool ends(const std::string& text, const std::string& ending)
    {
        return text.ends_with(ending + "\n");
    }
};

}  // namespace

TEST_F(HashNameTest, aNameWithoutTheFlagOfItsPaddingIsNotLookedAt)
{
    hash = someBytes(32);
    for (const wchar_t* name : {L"SHA256", L"MD2"}) {
        BCRYPT_PKCS1_PADDING_INFO padding{name};
        EXPECT_TRUE(
            ends(signedData(&padding, 0), ", data=" + hexEncode(hash) + ", signature=room[256])"));
    }
}

TEST_F(HashNameTest, eachNameHasItsDigestInfo)
{
    for (const Named& row : names) {
        SCOPED_TRACE(row.digestInfo);
        hash = someBytes(row.size);
        BCRYPT_PKCS1_PADDING_INFO padding{row.name};
        const std::string calls = signedData(&padding, BCRYPT_PAD_PKCS1);
        EXPECT_NE(std::string::npos, calls.find("mechanism=0x1, parameter=null"));
        EXPECT_TRUE(
            ends(calls, ", data=" + (row.digestInfo + hexEncode(hash)) + ", signature=room[256])"))
            << calls;
    }
}

TEST_F(HashNameTest, aNullNameAndNoPaddingFlagSignWhatIsGiven)
{
    BCRYPT_PKCS1_PADDING_INFO padding{nullptr};
    for (const size_t size : {1U, 20U, 36U, 245U}) {
        hash = someBytes(size);
        const std::string expected = ", data=" + hexEncode(hash) + ", signature=room[256])";
        EXPECT_TRUE(ends(signedData(&padding, BCRYPT_PAD_PKCS1), expected));
        EXPECT_TRUE(ends(signedData(nullptr, 0), expected));
    }
}

TEST_F(HashNameTest, anUnknownNameIsNotSupported)
{
    for (const wchar_t* name : unknownNames) {
        BCRYPT_PKCS1_PADDING_INFO pkcs1{name};
        expectAllRefused(NTE_NOT_SUPPORTED, &pkcs1, BCRYPT_PAD_PKCS1);
        BCRYPT_PSS_PADDING_INFO pss{name, 20};
        expectAllRefused(NTE_NOT_SUPPORTED, &pss, BCRYPT_PAD_PSS);
    }
    for (const wchar_t* name : {static_cast<const wchar_t*>(nullptr), L"MD5"}) {
        BCRYPT_PSS_PADDING_INFO pss{name, 16};
        expectAllRefused(NTE_NOT_SUPPORTED, &pss, BCRYPT_PAD_PSS);
    }
    EXPECT_NE("", messages(takeLines(), "ERR"));
}

TEST_F(HashNameTest, aHashOfAnotherLengthIsAnInvalidParameter)
{
    for (const Named& row : names) {
        for (const DWORD size : {DWORD{1}, row.size - 1, row.size + 1, 2 * row.size}) {
            hash = someBytes(size);
            BCRYPT_PKCS1_PADDING_INFO pkcs1{row.name};
            expectAllRefused(NTE_INVALID_PARAMETER, &pkcs1, BCRYPT_PAD_PKCS1);
            BCRYPT_PSS_PADDING_INFO pss{row.name, 20};
            if (row.pss != 0)
                expectAllRefused(NTE_INVALID_PARAMETER, &pss, BCRYPT_PAD_PSS);
        }
    }
    hash = someBytes(20);
    BCRYPT_PKCS1_PADDING_INFO pkcs1{L"SHA256"};
    takeLines();
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), sign(rsa, 256, &pkcs1, BCRYPT_PAD_PKCS1));
    EXPECT_TRUE(messages(takeLines(), "ERR")
                    .starts_with("The hash has 20 bytes, and a hash of [SHA256] has 32\n"));
}

TEST_F(HashNameTest, missingPaddingInformationStaysAnInvalidParameter)
{
    for (const DWORD flags : {DWORD{BCRYPT_PAD_PKCS1}, DWORD{BCRYPT_PAD_PSS}})
        expectAllRefused(NTE_INVALID_PARAMETER, nullptr, flags);
}

TEST_F(HashNameTest, pssHasTheHashAndTheSaltOfItsInformation)
{
    for (const Named& row : names) {
        if (row.pss == 0)
            continue;
        hash = someBytes(row.size);
        BCRYPT_PSS_PADDING_INFO padding{row.name, 7};
        const std::string calls = signedData(&padding, BCRYPT_PAD_PSS);
        EXPECT_NE(std::string::npos, calls.find("mechanism=0xD"));
        EXPECT_TRUE(ends(calls, ", data=" + hexEncode(hash) + ", signature=room[256])"));
        EXPECT_EQ(signatureOf(CKM_RSA_PKCS_PSS, hash, 256), written(256));
    }
}

// An EC key has no names: the information is not looked at.
TEST_F(HashNameTest, anEcKeySignsWithAnyName)
{
    BCRYPT_PKCS1_PADDING_INFO padding{L"unknown"};
    EXPECT_EQ(status(ERROR_SUCCESS),
              withPin([&] { return sign(ec, 64, &padding, BCRYPT_PAD_PKCS1); }));
    EXPECT_EQ(status(ERROR_SUCCESS), verify(ec, written(64), &padding, BCRYPT_PAD_PKCS1));
}

TEST_F(HashNameTest, whatIsSignedVerifies)
{
    for (const Named& row : names) {
        hash = someBytes(row.size);
        BCRYPT_PKCS1_PADDING_INFO pkcs1{row.name};
        BCRYPT_PSS_PADDING_INFO pss{row.name, row.size};
        signedData(&pkcs1, BCRYPT_PAD_PKCS1);
        EXPECT_EQ(status(ERROR_SUCCESS), verify(rsa, written(256), &pkcs1, BCRYPT_PAD_PKCS1));
        if (row.pss == 0)
            continue;
        signedData(&pss, BCRYPT_PAD_PSS);
        EXPECT_EQ(status(ERROR_SUCCESS), verify(rsa, written(256), &pss, BCRYPT_PAD_PSS));
    }
    signedData(nullptr, 0);
    EXPECT_EQ(status(ERROR_SUCCESS), verify(rsa, written(256)));
}

TEST_F(HashNameTest, aSignatureThatDoesNotVerifyIsABadOne)
{
    BCRYPT_PKCS1_PADDING_INFO padding{L"SHA256"};
    signedData(&padding, BCRYPT_PAD_PKCS1);
    Bytes wrong = written(256);
    wrong.back() ^= 1;
    EXPECT_EQ(status(NTE_BAD_SIGNATURE), verify(rsa, wrong, &padding, BCRYPT_PAD_PKCS1));
    // The bare hash was not signed.
    EXPECT_EQ(status(NTE_BAD_SIGNATURE), verify(rsa, written(256)));
    EXPECT_EQ(status(NTE_BAD_SIGNATURE), verify(ec, Bytes(64)));
}

TEST_F(HashNameTest, aSignatureOfAnotherLengthIsABadOne)
{
    for (const size_t size : {1U, 255U, 257U})
        expectRefused(NTE_BAD_SIGNATURE, verify(rsa, Bytes(size)));
    for (const size_t size : {63U, 65U, 72U})
        expectRefused(NTE_BAD_SIGNATURE, verify(ec, Bytes(size)));
    for (const DWORD size : {0U, 256U})
        expectRefused(
            NTE_BAD_SIGNATURE,
            table()->VerifySignature(handle(), rsa, nullptr, hash.data(), 32, nullptr, size, 0));
    Bytes signature(1);
    expectRefused(
        NTE_INVALID_PARAMETER,
        table()->VerifySignature(handle(), rsa, nullptr, hash.data(), 32, signature.data(), 0, 0));
}

// The length of a key's signature is known by the token alone if the certificate does not tell it.
TEST_F(HashNameTest, theTokensJudgementOfTheLengthCountsToo)
{
    token.fail("C_Verify", CKR_SIGNATURE_LEN_RANGE, 1);
    EXPECT_EQ(status(NTE_BAD_SIGNATURE), verify(rsa, Bytes(256)));
}

// Encryption knows the hash names of OAEP; with another name nobody is asked.
TEST_F(HashNameTest, oaepWithAnUnknownNameIsNotSupported)
{
    for (const wchar_t* name : {static_cast<const wchar_t*>(nullptr), L"MD5", L"", L"sha1"}) {
        BCRYPT_OAEP_PADDING_INFO oaep{name, nullptr, 0};
        expectRefused(NTE_NOT_SUPPORTED, encrypt(rsa, hash, 256, &oaep, BCRYPT_PAD_OAEP));
        expectRefused(NTE_NOT_SUPPORTED, decrypt(rsa, Bytes(256), 256, &oaep, BCRYPT_PAD_OAEP));
    }
    expectRefused(NTE_NOT_SUPPORTED, encrypt(rsa, hash, 256, nullptr, 0));
    expectRefused(NTE_NOT_SUPPORTED, decrypt(rsa, Bytes(256), 256, nullptr, 0));
    expectRefused(NTE_INVALID_PARAMETER, encrypt(rsa, hash, 256, nullptr, BCRYPT_PAD_OAEP));
    // With the flag for no padding, the information of OAEP may be missing, as in classic.
    EXPECT_EQ(status(ERROR_SUCCESS),
              encrypt(rsa, Bytes(256), 256, nullptr, BCRYPT_PAD_NONE | BCRYPT_PAD_OAEP));
}

}  // namespace NV::test
