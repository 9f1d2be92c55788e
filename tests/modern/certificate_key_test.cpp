// Verification and encryption where the token does not give its public key: M7. The signatures are
// those of the certificates' own keys, by OpenSSL.

#include "operation_fixture.h"

namespace NV::test {

namespace {

struct Named {
    const wchar_t* name;
    const char* file;
    DWORD size;
};

// Those that BCrypt knows on every system.
constexpr Named names[] = {{L"SHA1", "sha1", 20},
                           {L"SHA256", "sha256", 32},
                           {L"SHA384", "sha384", 48},
                           {L"SHA512", "sha512", 64}};

class CertificateKeyTest : public TokenOperationTest {
protected:
    // The token has certificates and no key objects.
    CertificateKeyTest() { token.clearObjects(); }

    SECURITY_STATUS verifyNamed(const Named& row, const Bytes& signature)
    {
        hash = fixtureHash(row.size);
        BCRYPT_PKCS1_PADDING_INFO padding{row.name};
        return verify(rsa, signature, &padding, BCRYPT_PAD_PKCS1);
    }
    SECURITY_STATUS verifyPss(const Named& row, const Bytes& signature, ULONG salt)
    {
        hash = fixtureHash(row.size);
        BCRYPT_PSS_PADDING_INFO padding{row.name, salt};
        return verify(rsa, signature, &padding, BCRYPT_PAD_PSS);
    }
    static Bytes changed(Bytes bytes)
    {
        bytes[bytes.size() / 2] ^= 1;
        return bytes;
    }
};

}  // namespace

TEST_F(CertificateKeyTest, verifiesPkcs1WithEachName)
{
    for (const Named& row : names) {
        SCOPED_TRACE(row.file);
        const Bytes good = fixtureResult(std::string("rsa2048.pkcs1-") + row.file);
        EXPECT_EQ(status(ERROR_SUCCESS), verifyNamed(row, good));
        EXPECT_EQ(status(NTE_BAD_SIGNATURE), verifyNamed(row, changed(good)));
        const Bytes other = fixtureResult(std::string("rsa2048.pss-") + row.file);
        EXPECT_EQ(status(NTE_BAD_SIGNATURE), verifyNamed(row, other));
        // Not below the modulus.
        EXPECT_EQ(status(NTE_BAD_SIGNATURE), verifyNamed(row, Bytes(256, 0xFF)));
    }
}

TEST_F(CertificateKeyTest, verifiesAnEcSignature)
{
    hash = fixtureHash(32);
    const Bytes good = fixtureResult("p256.ecdsa");
    EXPECT_EQ(status(ERROR_SUCCESS), verify(ec, good));
    EXPECT_EQ(status(NTE_BAD_SIGNATURE), verify(ec, changed(good)));
    EXPECT_EQ(status(NTE_BAD_SIGNATURE), verify(ec, Bytes(64)));
    hash[3] ^= 1;
    EXPECT_EQ(status(NTE_BAD_SIGNATURE), verify(ec, good));
}

TEST_F(CertificateKeyTest, theTokenIsAskedFirst)
{
    hash = fixtureHash(32);
    EXPECT_EQ(status(ERROR_SUCCESS), verify(ec, fixtureResult("p256.ecdsa")));
    EXPECT_EQ("C_OpenSession\nC_FindObjectsInit\nC_FindObjects\nC_CloseSession\n",
              joined(token.callNames()));
    token.addEcKeyPair({0x02, 0x56}, 32);
    EXPECT_EQ(status(NTE_BAD_SIGNATURE), verify(ec, fixtureResult("p256.ecdsa")));
    EXPECT_EQ(status(ERROR_SUCCESS), verify(ec, signatureOf(CKM_ECDSA, hash, 64)));
}

TEST_F(CertificateKeyTest, aTokenThatWantsALoginIsOneWithoutAPublicKey)
{
    token.addEcKeyPair({0x02, 0x56}, 32);
    hash = fixtureHash(32);
    for (const char* function : {"C_OpenSession", "C_FindObjectsInit", "C_FindObjects",
                                 "C_FindObjectsFinal", "C_VerifyInit", "C_Verify"}) {
        SCOPED_TRACE(function);
        token.fail(function, CKR_USER_NOT_LOGGED_IN, 1);
        EXPECT_EQ(status(ERROR_SUCCESS), verify(ec, fixtureResult("p256.ecdsa")));
        EXPECT_EQ(0U, token.openSessions());
    }
}

TEST_F(CertificateKeyTest, otherFailuresStand)
{
    token.addEcKeyPair({0x02, 0x56}, 32);
    hash = fixtureHash(32);
    for (const char* function :
         {"C_OpenSession", "C_FindObjectsInit", "C_VerifyInit", "C_Verify"}) {
        token.fail(function, CKR_DEVICE_REMOVED, 1);
        EXPECT_EQ(status(SCARD_W_REMOVED_CARD), verify(ec, fixtureResult("p256.ecdsa")));
        token.fail(function, CKR_KEY_HANDLE_INVALID, 1);
        EXPECT_EQ(status(NTE_INTERNAL_ERROR), verify(ec, fixtureResult("p256.ecdsa")));
    }
}

TEST_F(CertificateKeyTest, encryptsPkcs1)
{
    EXPECT_EQ(status(ERROR_SUCCESS), encrypt(rsa, someBytes(20), 300));
    EXPECT_EQ(256U, output.length);
    EXPECT_TRUE(output.onlyWritten(256));
    const Bytes first = written(256);
    EXPECT_EQ(status(ERROR_SUCCESS), encrypt(rsa, someBytes(20), 256));
    EXPECT_NE(first, written(256));
    EXPECT_EQ(status(ERROR_SUCCESS), encrypt(rsa, someBytes(245), 256));
}

TEST_F(CertificateKeyTest, refusesWhatItCannotEncrypt)
{
    EXPECT_EQ(status(NTE_BAD_LEN), encrypt(rsa, Bytes(246), 256));
    BCRYPT_OAEP_PADDING_INFO oaep{L"SHA256", nullptr, 0};
    EXPECT_EQ(status(NTE_BAD_LEN), encrypt(rsa, Bytes(191), 256, &oaep, BCRYPT_PAD_OAEP));
    EXPECT_EQ(status(NTE_BAD_LEN), encrypt(rsa, Bytes(257), 256, nullptr, BCRYPT_PAD_NONE));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              table()->Encrypt(handle(), rsa, nullptr, 20, nullptr, output.at(), 256,
                               &output.length, BCRYPT_PAD_PKCS1));
    EXPECT_TRUE(output.untouched());
}

// What signs or decrypts needs the private key, which is on the token or nowhere.
TEST_F(CertificateKeyTest, privateOperationsDoNotUseIt)
{
    EXPECT_EQ(status(NTE_NO_KEY), withPin([&] { return sign(rsa, 256); }));
    EXPECT_EQ(status(NTE_NO_KEY), withPin([&] { return decrypt(rsa, Bytes(256), 256); }));
}

// Wine's BCrypt has PSS with SHA-1 not at all.
TEST_F(CertificateKeyTest, verifiesPssOrLeavesTheTokensFailure)
{
    for (const Named& row : names) {
        SCOPED_TRACE(row.file);
        const Bytes good = fixtureResult(std::string("rsa2048.pss-") + row.file);
        const SECURITY_STATUS given = verifyPss(row, good, row.size);
        if (row.size == 20 && given == status(NTE_NO_KEY))
            continue;
        EXPECT_EQ(status(ERROR_SUCCESS), given);
        EXPECT_EQ(status(NTE_BAD_SIGNATURE), verifyPss(row, changed(good), row.size));
    }
}

}  // namespace NV::test
