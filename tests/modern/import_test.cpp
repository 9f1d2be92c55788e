// Imported public keys: what is accepted, and what an RSA key does: M23.

#include "guarded_bytes.h"
#include "operation_fixture.h"
#include "peer_key.h"

namespace NV::test {

namespace {

constexpr uint32_t rsaPublicMagic = 0x31415352;

void addNumber(Bytes& blob, uint32_t number)
{
    for (unsigned shift = 0; shift < 32; shift += 8)
        blob.push_back(static_cast<unsigned char>(number >> shift));
}

Bytes rsaBlob(uint32_t magic, uint32_t bits, const Bytes& exponent, const Bytes& modulus)
{
    Bytes blob;
    for (const uint32_t field : {magic, bits, static_cast<uint32_t>(exponent.size()),
                                 static_cast<uint32_t>(modulus.size()), 0U, 0U})
        addNumber(blob, field);
    return joinedBytes({blob, exponent, modulus});
}

// Of the DER in a certificate: SEQUENCE, INTEGER with a leading zero, INTEGER 01 00 01.
Bytes modulusOf(const std::string& certificate)
{
    const Bytes key = certificateKey(certificate);
    return {key.end() - 5 - 256, key.end() - 5};
}

class ImportedKeyTest : public TokenOperationTest {
protected:
    // The blob ends where readable memory ends.
    SECURITY_STATUS import(const Bytes& blob, const wchar_t* type)
    {
        const GuardedBytes guarded(blob);
        return table()->ImportKey(handle(), 0, type, nullptr, &imported, guarded.data(),
                                  guarded.size(), 0);
    }
    void expectRefusedBlob(HRESULT expected, const Bytes& blob, const wchar_t* type)
    {
        EXPECT_EQ(status(expected), import(blob, type));
        EXPECT_EQ(0xEEEEU, imported);
    }
    void importRsa() { ASSERT_EQ(status(ERROR_SUCCESS), import(good, BCRYPT_RSAPUBLIC_BLOB)); }

    Bytes good = rsaBlob(rsaPublicMagic, 2048, {1, 0, 1}, modulusOf("rsa2048"));
    NCRYPT_KEY_HANDLE imported = 0xEEEE;
};

}  // namespace

TEST_F(ImportedKeyTest, aShortBlobIsDamaged)
{
    const Bytes ecc = peerBlob(ecdhP256, 32);
    for (size_t size = 1; size < ecc.size(); ++size)
        expectRefusedBlob(NTE_BAD_DATA, {ecc.begin(), ecc.begin() + static_cast<ptrdiff_t>(size)},
                          BCRYPT_ECCPUBLIC_BLOB);
    for (size_t size = 1; size < good.size(); ++size)
        expectRefusedBlob(NTE_BAD_DATA, {good.begin(), good.begin() + static_cast<ptrdiff_t>(size)},
                          BCRYPT_RSAPUBLIC_BLOB);
    takeLines();
    expectRefusedBlob(NTE_BAD_DATA, {ecc.front()}, BCRYPT_ECCPUBLIC_BLOB);
    EXPECT_TRUE(messages(takeLines(), "ERR").starts_with("The BLOB is damaged or short\n"));
    EXPECT_EQ(status(ERROR_SUCCESS), import(ecc, BCRYPT_ECCPUBLIC_BLOB));
    EXPECT_EQ(status(ERROR_SUCCESS), table()->FreeKey(handle(), imported));
    EXPECT_EQ(status(ERROR_SUCCESS), import(good, BCRYPT_RSAPUBLIC_BLOB));
    EXPECT_EQ(status(ERROR_SUCCESS), table()->FreeKey(handle(), imported));
}

TEST_F(ImportedKeyTest, fieldsThatDoNotAgreeAreDamage)
{
    for (const uint32_t size : {0U, 31U, 33U, 48U, 0x80000000U, 0xFFFFFFFFU}) {
        Bytes ecc = peerBlob(ecdhP256, 32);
        const Bytes head = blobHeader(ecdhP256, size);
        std::ranges::copy(head, ecc.begin());
        ecc.resize(200);
        expectRefusedBlob(NTE_BAD_DATA, ecc, BCRYPT_ECCPUBLIC_BLOB);
    }
    const Bytes modulus = modulusOf("rsa2048");
    for (const uint32_t bits : {0U, 2040U, 2049U, 4096U})
        expectRefusedBlob(NTE_BAD_DATA, rsaBlob(rsaPublicMagic, bits, {1, 0, 1}, modulus),
                          BCRYPT_RSAPUBLIC_BLOB);
    expectRefusedBlob(NTE_BAD_DATA, rsaBlob(rsaPublicMagic, 2048, {}, modulus),
                      BCRYPT_RSAPUBLIC_BLOB);
    expectRefusedBlob(NTE_BAD_DATA, rsaBlob(rsaPublicMagic, 2048, {0, 0}, modulus),
                      BCRYPT_RSAPUBLIC_BLOB);
    expectRefusedBlob(NTE_BAD_DATA, rsaBlob(rsaPublicMagic, 2048, {3}, Bytes(256)),
                      BCRYPT_RSAPUBLIC_BLOB);
    // Sizes whose sum does not fit in 32 bits.
    Bytes huge = good;
    std::fill(huge.begin() + 8, huge.begin() + 16, 0xFF);
    expectRefusedBlob(NTE_BAD_DATA, huge, BCRYPT_RSAPUBLIC_BLOB);
}

TEST_F(ImportedKeyTest, anotherKindOrCurveIsNotSupported)
{
    for (const uint32_t magic :
         {0x31534345U, 0x324B4345U, 0x32534345U, 0x504B4345U, rsaPublicMagic, 0U}) {
        Bytes ecc = peerBlob(magic, 32);
        expectRefusedBlob(NTE_NOT_SUPPORTED, ecc, BCRYPT_ECCPUBLIC_BLOB);
    }
    for (const uint32_t magic : {0x32415352U, 0x33415352U, ecdhP256, 0U})
        expectRefusedBlob(NTE_NOT_SUPPORTED, rsaBlob(magic, 2048, {1, 0, 1}, modulusOf("rsa2048")),
                          BCRYPT_RSAPUBLIC_BLOB);
    expectRefusedBlob(NTE_NOT_SUPPORTED, rsaBlob(rsaPublicMagic, 16392, {3}, Bytes(2049, 0xFF)),
                      BCRYPT_RSAPUBLIC_BLOB);
    expectRefusedBlob(NTE_NOT_SUPPORTED, good, BCRYPT_PUBLIC_KEY_BLOB);
    expectRefusedBlob(NTE_NOT_SUPPORTED, good, L"RSAPRIVATEBLOB");
    EXPECT_NE("", messages(takeLines(), "ERR"));
}

TEST_F(ImportedKeyTest, wrongArgumentsAreAsBefore)
{
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              table()->ImportKey(handle(), 0, nullptr, nullptr, &imported, good.data(), 1, 0));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              table()->ImportKey(handle(), 0, BCRYPT_RSAPUBLIC_BLOB, nullptr, nullptr, good.data(),
                                 sizeOf(good), 0));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              table()->ImportKey(handle(), 0, BCRYPT_RSAPUBLIC_BLOB, nullptr, &imported, nullptr,
                                 sizeOf(good), 0));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              table()->ImportKey(handle(), 0, BCRYPT_RSAPUBLIC_BLOB, nullptr, &imported,
                                 good.data(), 0, 0));
    EXPECT_EQ(status(NTE_NOT_SUPPORTED),
              table()->ImportKey(handle(), rsa, BCRYPT_RSAPUBLIC_BLOB, nullptr, &imported,
                                 good.data(), sizeOf(good), 0));
    EXPECT_EQ(0xEEEEU, imported);
}

TEST_F(ImportedKeyTest, anRsaKeyVerifiesWithoutTheToken)
{
    importRsa();
    hash = fixtureHash(32);
    BCRYPT_PKCS1_PADDING_INFO padding{L"SHA256"};
    Bytes signature = fixtureResult("rsa2048.pkcs1-sha256");
    EXPECT_EQ(status(ERROR_SUCCESS), verify(imported, signature, &padding, BCRYPT_PAD_PKCS1));
    BCRYPT_PSS_PADDING_INFO pss{L"SHA256", 32};
    EXPECT_EQ(status(ERROR_SUCCESS),
              verify(imported, fixtureResult("rsa2048.pss-sha256"), &pss, BCRYPT_PAD_PSS));
    signature[5] ^= 1;
    EXPECT_EQ(status(NTE_BAD_SIGNATURE), verify(imported, signature, &padding, BCRYPT_PAD_PKCS1));
    EXPECT_EQ(status(NTE_BAD_SIGNATURE), verify(imported, Bytes(255), &padding, BCRYPT_PAD_PKCS1));
    padding.pszAlgId = L"unknown";
    EXPECT_EQ(status(NTE_NOT_SUPPORTED), verify(imported, signature, &padding, BCRYPT_PAD_PKCS1));
    EXPECT_TRUE(token.calls().empty());
}

TEST_F(ImportedKeyTest, anRsaKeyEncryptsWithoutTheToken)
{
    importRsa();
    EXPECT_EQ(status(ERROR_SUCCESS), encrypt(imported, someBytes(20), 0));
    EXPECT_EQ(256U, output.length);
    EXPECT_EQ(status(NTE_BUFFER_TOO_SMALL), encrypt(imported, someBytes(20), 255));
    EXPECT_EQ(status(ERROR_SUCCESS), encrypt(imported, someBytes(20), 256));
    EXPECT_TRUE(output.onlyWritten(256));
    EXPECT_EQ(status(NTE_BAD_LEN), encrypt(imported, Bytes(246), 256));
    EXPECT_TRUE(token.calls().empty());
}

TEST_F(ImportedKeyTest, leadingZerosDoNotCount)
{
    Bytes modulus = modulusOf("rsa2048");
    modulus.insert(modulus.begin(), {0, 0});
    ASSERT_EQ(status(ERROR_SUCCESS),
              import(rsaBlob(rsaPublicMagic, 2064, {0, 1, 0, 1}, modulus), BCRYPT_RSAPUBLIC_BLOB));
    EXPECT_EQ(status(ERROR_SUCCESS), encrypt(imported, someBytes(20), 0));
    EXPECT_EQ(256U, output.length);
}

TEST_F(ImportedKeyTest, anImportedKeyHasNoPrivateOperations)
{
    importRsa();
    expectRefused(NTE_INVALID_HANDLE, sign(imported, 256));
    expectRefused(NTE_INVALID_HANDLE, decrypt(imported, Bytes(256), 256));
    NCRYPT_SECRET_HANDLE secret = 0;
    EXPECT_EQ(status(NTE_INVALID_HANDLE),
              table()->SecretAgreement(handle(), imported, ec, &secret, 0));
}

TEST_F(ImportedKeyTest, anEcKeyIsForAgreementAlone)
{
    ASSERT_EQ(status(ERROR_SUCCESS), import(peerBlob(ecdhP256, 32), BCRYPT_ECCPUBLIC_BLOB));
    expectRefused(NTE_INVALID_HANDLE, verify(imported, Bytes(64)));
    expectRefused(NTE_INVALID_HANDLE, encrypt(imported, hash, 64));
}

TEST_F(ImportedKeyTest, anUnknownHandleIsInvalid)
{
    importRsa();
    EXPECT_EQ(status(ERROR_SUCCESS), table()->FreeKey(handle(), imported));
    OpenedProvider other(*module);
    for (const NCRYPT_KEY_HANDLE key :
         {imported, NCRYPT_KEY_HANDLE{0}, NCRYPT_KEY_HANDLE{0x77}, other.openKey(L"01AB")}) {
        EXPECT_EQ(status(NTE_INVALID_HANDLE), verify(key, Bytes(256)));
        EXPECT_EQ(status(NTE_INVALID_HANDLE), encrypt(key, hash, 256));
        EXPECT_EQ(status(NTE_INVALID_HANDLE), sign(key, 256));
        EXPECT_EQ(status(NTE_INVALID_HANDLE), decrypt(key, Bytes(256), 256));
    }
    EXPECT_TRUE(output.untouched());
}

}  // namespace NV::test
