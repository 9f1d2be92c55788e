// Imported public keys as the provider's callers see them: which blobs give a handle, and which
// operations know it.

#include "secrets_fixture.h"

namespace NV::test {

namespace {

class ImportTest : public SecretsTest {
protected:
    SECURITY_STATUS textProperty(NCRYPT_KEY_HANDLE handle, const wchar_t* name, std::wstring& text)
    {
        wchar_t value[64] = {};
        DWORD size = 0;
        const SECURITY_STATUS status = module()->GetKeyProperty(
            provider(), handle, name, reinterpret_cast<PBYTE>(value), sizeof value, &size, 0);
        text = value;
        return status;
    }
};

}  // namespace

// The type is accepted, the magic is not.
TEST_F(ImportTest, AnRsaBlobGivesNoKeyAndSuccess)
{
    const Bytes rsa = joinedBytes({blobHeader(0x31415352, 2048), Bytes(24, 0x01)});
    EXPECT_EQ(0u, import(rsa, BCRYPT_RSAPUBLIC_BLOB));
    EXPECT_EQ(0u, import(peerBlob(0x31534345, 32), BCRYPT_ECCPUBLIC_BLOB));
    EXPECT_EQ(2u,
              countLines(takeLines(), "ERR NV::KeyStore::addEphemeralKey:Unsupported/Unknown MAGIC "
                                      "received.."));
}

TEST_F(ImportTest, ABlobOfAnyLengthIsReadOnlySoFar)
{
    const Bytes whole = peerBlob(ecdhP256, 32);
    for (size_t size = 1; size < whole.size(); ++size)
        EXPECT_EQ(0u, import({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)}))
            << size;
    const NCRYPT_KEY_HANDLE handle = import(whole);
    EXPECT_NE(0u, handle);
    EXPECT_NE(untouched, handle);
    EXPECT_EQ(success, module()->FreeKey(provider(), handle));
}

TEST_F(ImportTest, AnEmptyBlobIsAnInvalidParameter)
{
    BYTE byte = 0;
    NCRYPT_KEY_HANDLE handle = untouched;
    EXPECT_EQ(NTE_INVALID_PARAMETER, module()->ImportKey(provider(), 0, BCRYPT_ECCPUBLIC_BLOB,
                                                         nullptr, &handle, &byte, 0, 0));
    EXPECT_EQ(untouched, handle);
}

TEST_F(ImportTest, TheRsaTypeTakesAnEcBlobToo)
{
    const NCRYPT_KEY_HANDLE handle = import(peerBlob(ecdhP256, 32), BCRYPT_RSAPUBLIC_BLOB);
    EXPECT_NE(0u, handle);
    EXPECT_EQ(success, module()->FreeKey(provider(), handle));
}

TEST_F(ImportTest, AnImportedKeyIsExportedWithTheSigningMagic)
{
    for (const auto& [magic, size] :
         {std::pair<uint32_t, uint32_t>{ecdhP256, 32}, {ecdhP384, 48}, {ecdhP521, 66}}) {
        const NCRYPT_KEY_HANDLE handle = import(peerBlob(magic, size));
        DWORD length = 0;
        EXPECT_EQ(success, module()->ExportKey(provider(), handle, 0, BCRYPT_ECCPUBLIC_BLOB,
                                               nullptr, nullptr, 0, &length, 0));
        EXPECT_EQ(8 + 2 * size, length);
        Bytes blob(length);
        EXPECT_EQ(success, module()->ExportKey(provider(), handle, 0, BCRYPT_ECCPUBLIC_BLOB,
                                               nullptr, blob.data(), length, &length, 0));
        Bytes expected = peerBlob(magic, size);
        expected[2] = 'S';
        EXPECT_EQ(hexEncode(expected), hexEncode(blob));
        EXPECT_EQ(success, module()->FreeKey(provider(), handle));
    }
}

TEST_F(ImportTest, AnImportedKeyHasProperties)
{
    const NCRYPT_KEY_HANDLE handle = importPeer();
    std::wstring text;
    EXPECT_EQ(success, textProperty(handle, NCRYPT_ALGORITHM_PROPERTY, text));
    EXPECT_EQ(L"ECDSA_P256", text);
    EXPECT_EQ(success, textProperty(handle, NCRYPT_NAME_PROPERTY, text));
    EXPECT_EQ(L"", text);
    wchar_t value[] = L"odd value";
    EXPECT_EQ(success, module()->SetKeyProperty(provider(), handle, L"Odd Property",
                                                reinterpret_cast<PBYTE>(value), sizeof value, 0));
    EXPECT_EQ(success, textProperty(handle, L"Odd Property", text));
    EXPECT_EQ(L"odd value", text);
    EXPECT_EQ(success, module()->FreeKey(provider(), handle));
}

// No dialog opens and the token is not asked: it does not hold the key.
TEST_F(ImportTest, AnImportedKeyDoesNoWorkOnTheToken)
{
    const NCRYPT_KEY_HANDLE handle = importPeer();
    BYTE data[32] = {1};
    BYTE output[64] = {};
    DWORD length = 0x7391;
    NCRYPT_SECRET_HANDLE secret = untouched;
    forget();
    const DialogDriver none(DialogDriver::cancelling(), 0);
    EXPECT_EQ(NTE_INVALID_HANDLE,
              module()->SignHash(provider(), handle, nullptr, data, 32, output, 64, &length, 0));
    EXPECT_EQ(NTE_INVALID_HANDLE,
              module()->SignHash(provider(), handle, nullptr, data, 32, nullptr, 0, &length, 0));
    EXPECT_EQ(NTE_INVALID_HANDLE,
              module()->VerifySignature(provider(), handle, nullptr, data, 32, output, 64, 0));
    EXPECT_EQ(NTE_INVALID_HANDLE, module()->Encrypt(provider(), handle, data, 32, nullptr, output,
                                                    64, &length, BCRYPT_PAD_PKCS1));
    EXPECT_EQ(NTE_INVALID_HANDLE, module()->Decrypt(provider(), handle, data, 32, nullptr, output,
                                                    64, &length, BCRYPT_PAD_PKCS1));
    EXPECT_EQ(NTE_INVALID_HANDLE,
              module()->SecretAgreement(provider(), handle, handle, &secret, 0));
    EXPECT_EQ(0x7391u, length);
    EXPECT_EQ(untouched, secret);
    EXPECT_TRUE(token().calls().empty());
    const LogLines lines = takeLines();
    EXPECT_TRUE(ofFunction(lines, "NV::Provider::enterPIN").empty());
    EXPECT_EQ(6u, selected(lines, [](const LogLine& line) {
                      return line.level == "ERR" && masked(line.message) == "Not Found Key = NULL";
                  }).size());
    EXPECT_EQ(success, module()->FreeKey(provider(), handle));
}

TEST_F(ImportTest, AFreedImportIsUnknown)
{
    const NCRYPT_KEY_HANDLE handle = importPeer();
    EXPECT_EQ(success, module()->FreeKey(provider(), handle));
    EXPECT_EQ(NTE_INVALID_HANDLE, module()->FreeKey(provider(), handle));
    DWORD length = 0;
    EXPECT_EQ(NTE_INVALID_HANDLE, module()->ExportKey(provider(), handle, 0, BCRYPT_ECCPUBLIC_BLOB,
                                                      nullptr, nullptr, 0, &length, 0));
}

TEST_F(ImportTest, AnImportBelongsToItsProvider)
{
    const NCRYPT_KEY_HANDLE handle = importPeer();
    DWORD length = 0;
    EXPECT_EQ(NTE_INVALID_HANDLE,
              module()->ExportKey(otherProvider(), handle, 0, BCRYPT_ECCPUBLIC_BLOB, nullptr,
                                  nullptr, 0, &length, 0));
    EXPECT_EQ(success, module()->FreeKey(provider(), handle));
}

TEST_F(ImportTest, AProviderIsFreedWithAnImportOpen)
{
    NCRYPT_PROV_HANDLE extra = 0;
    ASSERT_EQ(success, module()->OpenProvider(&extra, L"Norvanta Software KeyStore Provider", 0));
    Bytes blob = peerBlob(ecdhP256, 32);
    NCRYPT_KEY_HANDLE handle = 0;
    ASSERT_EQ(success, module()->ImportKey(extra, 0, BCRYPT_ECCPUBLIC_BLOB, nullptr, &handle,
                                           blob.data(), static_cast<DWORD>(blob.size()), 0));
    forget();
    ASSERT_EQ(success, module()->FreeProvider(extra));
    // The two filed keys and the imported one.
    EXPECT_EQ(3u, countLines(takeLines(), "TRC NV::P11KeyObject::~P11KeyObject:ENTER"));
}

}  // namespace NV::test
