// Secrets: what the log shows of them (M15), handles (M23), and derivation (M27).

#include "operation_fixture.h"
#include "peer_key.h"

namespace NV::test {

namespace {

const std::string secretHexText = hexEncode(repeated(kSecretPattern, 32));

class SecretTest : public TokenOperationTest {
protected:
    SecretTest() : peer(import(ecdhP256, 32)), secret(agree()) { forget(); }
    ~SecretTest() override { table()->FreeSecret(handle(), secret); }

    NCRYPT_KEY_HANDLE import(uint32_t magic, uint32_t coordinateSize)
    {
        Bytes blob = peerBlob(magic, coordinateSize);
        NCRYPT_KEY_HANDLE key = 0;
        EXPECT_EQ(status(ERROR_SUCCESS),
                  table()->ImportKey(handle(), 0, BCRYPT_ECCPUBLIC_BLOB, nullptr, &key, blob.data(),
                                     sizeOf(blob), 0));
        return key;
    }
    NCRYPT_SECRET_HANDLE agree()
    {
        NCRYPT_SECRET_HANDLE given = 0;
        EXPECT_EQ(status(ERROR_SUCCESS),
                  withPin([&] { return table()->SecretAgreement(handle(), ec, peer, &given, 0); }));
        return given;
    }
    SECURITY_STATUS derive(const wchar_t* kdf, NCryptBufferDesc* list, DWORD room)
    {
        return table()->DeriveKey(handle(), secret, kdf, list, room != 0 ? output.at() : nullptr,
                                  room, &output.length, 0);
    }
    SECURITY_STATUS deriveNamed(std::wstring name, DWORD room)
    {
        BCryptBuffer buffers[] = {{static_cast<ULONG>((name.size() + 1) * sizeof(wchar_t)),
                                   KDF_HASH_ALGORITHM, name.data()}};
        NCryptBufferDesc list{0, 1, buffers};
        return derive(BCRYPT_KDF_HASH, &list, room);
    }

    Bytes agreed = repeated(kSecretPattern, 32);
    NCRYPT_KEY_HANDLE peer;
    NCRYPT_SECRET_HANDLE secret;
};

}  // namespace

TEST_F(SecretTest, aSmallerBufferTakesTheFirstBytes)
{
    const Bytes digest = digestOf(CKM_SHA256, agreed);
    for (const DWORD room : {1U, 16U, 31U, 32U, 33U}) {
        output = Output();
        EXPECT_EQ(status(ERROR_SUCCESS), deriveNamed(L"SHA256", room));
        const DWORD expected = std::min(room, DWORD{32});
        EXPECT_EQ(expected, output.length);
        EXPECT_TRUE(output.onlyWritten(expected));
        EXPECT_EQ(Bytes(digest.begin(), digest.begin() + expected), written(expected));
    }
}

TEST_F(SecretTest, eachHashFitsItsOwnBuffer)
{
    for (const auto& [name, size, mechanism] :
         {std::tuple<const wchar_t*, DWORD, CK_MECHANISM_TYPE>{L"SHA1", 20, CKM_SHA_1},
          {L"SHA256", 32, CKM_SHA256},
          {L"SHA384", 48, CKM_SHA384},
          {L"SHA512", 64, CKM_SHA512}}) {
        output = Output();
        EXPECT_EQ(status(ERROR_SUCCESS), deriveNamed(name, 100));
        EXPECT_EQ(size, output.length);
        EXPECT_EQ(digestOf(mechanism, agreed), written(size));
    }
}

TEST_F(SecretTest, anHmacIsShortenedToo)
{
    std::wstring name = L"SHA256";
    Bytes key = someBytes(20);
    BCryptBuffer buffers[] = {
        {static_cast<ULONG>((name.size() + 1) * sizeof(wchar_t)), KDF_HASH_ALGORITHM, name.data()},
        {20, KDF_HMAC_KEY, key.data()}};
    NCryptBufferDesc list{0, 2, buffers};
    EXPECT_EQ(status(ERROR_SUCCESS), derive(BCRYPT_KDF_HMAC, &list, 10));
    EXPECT_EQ(10U, output.length);
    EXPECT_TRUE(output.onlyWritten(10));
    const Bytes whole = hmacOf(CKM_SHA256_HMAC, key, agreed);
    EXPECT_EQ(Bytes(whole.begin(), whole.begin() + 10), written(10));
}

TEST_F(SecretTest, withoutAHashNameItIsSha1)
{
    NCryptBufferDesc empty{0, 0, nullptr};
    for (NCryptBufferDesc* list : {static_cast<NCryptBufferDesc*>(nullptr), &empty}) {
        output = Output();
        EXPECT_EQ(status(ERROR_SUCCESS), derive(BCRYPT_KDF_HASH, list, 64));
        EXPECT_EQ(20U, output.length);
        EXPECT_EQ(digestOf(CKM_SHA_1, agreed), written(20));
    }
}

TEST_F(SecretTest, anEmptyOrUnknownHashNameIsRefused)
{
    for (const wchar_t* name : {L"", L"MD5", L"sha1"})
        expectRefused(NTE_INVALID_PARAMETER, deriveNamed(name, 64));
    // A buffer without bytes is no name either, and it is there.
    BCryptBuffer buffers[] = {{0, KDF_HASH_ALGORITHM, nullptr}};
    NCryptBufferDesc list{0, 1, buffers};
    expectRefused(NTE_INVALID_PARAMETER, derive(BCRYPT_KDF_HASH, &list, 64));
}

TEST_F(SecretTest, aSizeQueryAndAnEmptyBufferAreAsBefore)
{
    EXPECT_EQ(status(ERROR_SUCCESS), deriveNamed(L"SHA384", 0));
    EXPECT_EQ(48U, output.length);
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              table()->DeriveKey(handle(), secret, BCRYPT_KDF_HASH, nullptr, output.at(), 0,
                                 &output.length, 0));
}

TEST_F(SecretTest, aFailedDerivationWritesNothing)
{
    token.fail("C_Digest", CKR_DEVICE_REMOVED, 1);
    EXPECT_EQ(status(SCARD_W_REMOVED_CARD), deriveNamed(L"SHA256", 16));
    EXPECT_TRUE(output.untouched());
}

TEST_F(SecretTest, theLogHidesSecretsAndKeepsTheirLengths)
{
    const NCRYPT_SECRET_HANDLE another = agree();
    EXPECT_EQ(status(ERROR_SUCCESS), table()->FreeSecret(handle(), another));
    std::wstring name = L"SHA256";
    Bytes key = someBytes(20);
    BCryptBuffer buffers[] = {
        {static_cast<ULONG>((name.size() + 1) * sizeof(wchar_t)), KDF_HASH_ALGORITHM, name.data()},
        {20, KDF_HMAC_KEY, key.data()},
        {20, KDF_SECRET_PREPEND, key.data()}};
    NCryptBufferDesc list{0, 3, buffers};
    EXPECT_EQ(status(ERROR_SUCCESS), derive(BCRYPT_KDF_HMAC, &list, 32));
    const std::string derived = hexEncode(written(32));
    const std::string log = render(takeLines());
    for (const char* line :
         {"Agreed SharedSecret(32 bytes)=[hidden], ", "Retrieved SharedSecret(32 bytes)=[hidden]",
          "KDFInputData(52 bytes)=[hidden]", "HMAC_KEY(20 bytes)=[hidden]",
          "Derived Key(32 bytes): [hidden]"})
        EXPECT_NE(std::string::npos, log.find(line)) << line;
    for (const std::string& hidden : {secretHexText, derived, hexEncode(key)})
        EXPECT_EQ(std::string::npos, log.find(hidden));
}

TEST_F(SecretTest, anUnknownPublicKeyIsAnInvalidHandleWithoutADialog)
{
    NCRYPT_SECRET_HANDLE untouched = 0xEEEE;
    OpenedProvider other(*module);
    const NCRYPT_KEY_HANDLE freed = import(ecdhP256, 32);
    EXPECT_EQ(status(ERROR_SUCCESS), table()->FreeKey(handle(), freed));
    // The last one is a key, but not one of a curve.
    for (const NCRYPT_KEY_HANDLE key :
         {NCRYPT_KEY_HANDLE{0x77}, handle(), freed, other.openKey(L"0256"), secret, rsa})
        EXPECT_EQ(status(NTE_INVALID_HANDLE),
                  table()->SecretAgreement(handle(), ec, key, &untouched, 0));
    EXPECT_EQ(0xEEEEU, untouched);
}

TEST_F(SecretTest, anOpenedKeyIsAPublicKeyToo)
{
    NCRYPT_SECRET_HANDLE agreedSecret = 0;
    EXPECT_EQ(status(ERROR_SUCCESS), withPin([&] {
                  return table()->SecretAgreement(handle(), ec, ec, &agreedSecret, 0);
              }));
    EXPECT_EQ(status(ERROR_SUCCESS), table()->FreeSecret(handle(), agreedSecret));
}

TEST_F(SecretTest, anUnknownSecretIsAnInvalidHandle)
{
    EXPECT_EQ(status(NTE_INVALID_HANDLE), table()->FreeSecret(handle(), 0x77));
    EXPECT_EQ(status(NTE_INVALID_HANDLE),
              table()->DeriveKey(handle(), 0x77, BCRYPT_KDF_HASH, nullptr, output.at(), 20,
                                 &output.length, 0));
    const NCRYPT_SECRET_HANDLE another = agree();
    EXPECT_EQ(status(ERROR_SUCCESS), table()->FreeSecret(handle(), another));
    EXPECT_EQ(status(NTE_INVALID_HANDLE), table()->FreeSecret(handle(), another));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), table()->FreeSecret(handle(), 0));
}

}  // namespace NV::test
