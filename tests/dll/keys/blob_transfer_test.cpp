// Exporting and importing public keys.

#include <cstring>

#include "module_fixture.h"
#include "trace_file.h"

namespace NV::test {

namespace {

class ExportTest : public ServedKeysTest {
protected:
    SECURITY_STATUS exported(NCRYPT_KEY_HANDLE key, const wchar_t* type, Output& output, DWORD room)
    {
        return table()->ExportKey(handle(), key, 0, type, nullptr, output.at(), room,
                                  &output.length, 0);
    }
    Bytes blob(NCRYPT_KEY_HANDLE key, const wchar_t* type)
    {
        Output output;
        EXPECT_EQ(status(ERROR_SUCCESS), exported(key, type, output, 400));
        EXPECT_TRUE(output.onlyWritten(output.length));
        return {output.at(), output.at() + output.length};
    }
};

// An imported blob, and what ImportKey answers.
class ImportTest : public ServedKeysTest {
protected:
    // BCRYPT_ECCKEY_BLOB with an ECDH magic and a point that counts up.
    static Bytes peer(uint32_t magic = 0x314B4345, uint32_t size = 32)
    {
        Bytes bytes(8);
        std::memcpy(bytes.data(), &magic, 4);
        std::memcpy(bytes.data() + 4, &size, 4);
        const Bytes point = someBytes(2 * size_t{size});
        bytes.insert(bytes.end(), point.begin(), point.end());
        return bytes;
    }

    SECURITY_STATUS import(const wchar_t* type, Bytes bytes)
    {
        return table()->ImportKey(handle(), 0, type, nullptr, &key, bytes.data(),
                                  static_cast<DWORD>(bytes.size()), 0);
    }

    NCRYPT_KEY_HANDLE key = 0xEE;
};

}  // namespace

TEST_F(ExportTest, rsaBlobIsTheSameForEveryType)
{
    const Bytes expected = blob(rsa, L"RSAPUBLICBLOB");
    EXPECT_EQ(283U, expected.size());
    EXPECT_EQ("525341310008000003000000000100000000000000000000010001",
              hexEncode(expected).substr(0, 54));
    for (const wchar_t* type : {L"PUBLICBLOB", L"CAPIPUBLICBLOB", L"ECCPUBLICBLOB"})
        EXPECT_EQ(expected, blob(rsa, type));
    EXPECT_TRUE(token.calls().empty());
}

TEST_F(ExportTest, ecBlobIsTheSameForEveryType)
{
    const Bytes point = certificateKey("p256");
    const std::string expected = "4543533120000000" + hexEncode(point).substr(2);
    for (const wchar_t* type :
         {L"PUBLICBLOB", L"CAPIPUBLICBLOB", L"RSAPUBLICBLOB", L"ECCPUBLICBLOB"})
        EXPECT_EQ(expected, hexEncode(blob(ec, type)));
}

TEST_F(ExportTest, isTraced)
{
    Output output;
    exported(ec, L"PUBLICBLOB", output, 72);
    expectTrace(linesOf("NV::Provider::ExportKey"), "dll/keys/blob_transfer/is_traced");
    EXPECT_TRUE(output.onlyWritten(72));
}

TEST_F(ExportTest, aNullBufferAsksForTheLength)
{
    DWORD length = 0;
    EXPECT_EQ(status(ERROR_SUCCESS),
              table()->ExportKey(handle(), rsa, 0, L"PUBLICBLOB", nullptr, nullptr, 0, &length, 0));
    EXPECT_EQ(283U, length);
    EXPECT_EQ(0U, countLines(takeLines(), "TRC NV::Provider::ExportKey:Copy the public key data"));
}

TEST_F(ExportTest, aBufferOneByteShortIsAnInvalidParameterAndGivesTheLength)
{
    Output output;
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), exported(rsa, L"PUBLICBLOB", output, 282));
    EXPECT_EQ(283U, output.length);
    EXPECT_TRUE(output.onlyWritten(0));
    const LogLines lines = linesOf("NV::Provider::ExportKey");
    EXPECT_TRUE(hasLine(lines, "TRC NV::Provider::ExportKey:The allocated buffer length is too "
                               "short"));
    EXPECT_EQ("", messages(lines, "ERR"));
}

TEST_F(ExportTest, otherTypesAreNotSupported)
{
    for (const wchar_t* type : {L"", L"publicblob", L"PUBLICBLO", L"PRIVATEBLOB", L"ECCPRIVATEBLOB",
                                L"RSAPRIVATEBLOB", L"PKCS8_PRIVATEKEY"}) {
        Output output;
        EXPECT_EQ(status(NTE_NOT_SUPPORTED), exported(rsa, type, output, 400));
        EXPECT_TRUE(output.untouched());
        const std::wstring wide = type;
        EXPECT_EQ("Not Supported BlobType = " + std::string(wide.begin(), wide.end()) + "\n",
                  messages(takeLines(), "ERR"));
    }
}

TEST_F(ExportTest, theLastFailingArgumentDecides)
{
    Output output;
    const auto call = [&](NCRYPT_KEY_HANDLE key, NCRYPT_KEY_HANDLE exportKey, const wchar_t* type,
                          DWORD* length) {
        return table()->ExportKey(handle(), key, exportKey, type, nullptr, output.at(), 400, length,
                                  0);
    };
    EXPECT_EQ(status(NTE_NOT_SUPPORTED), call(rsa, ec, L"PUBLICBLOB", &output.length));
    EXPECT_EQ(status(NTE_NOT_SUPPORTED), call(0, ec, L"PUBLICBLOB", &output.length));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), call(0, 0, L"PUBLICBLOB", &output.length));
    EXPECT_EQ(status(NTE_NOT_SUPPORTED), call(0, 0, L"OTHER", &output.length));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), call(rsa, ec, nullptr, &output.length));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), call(rsa, 0, L"OTHER", nullptr));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), call(rsa, ec, L"PUBLICBLOB", nullptr));
    EXPECT_TRUE(output.untouched());
    EXPECT_EQ(0U, countLines(takeLines(), "ERR NV::Provider::ExportKey:Not Found Key = NULL"));
}

TEST_F(ExportTest, anUnknownHandlePrintsNull)
{
    Output output;
    for (const NCRYPT_KEY_HANDLE key : {NCRYPT_KEY_HANDLE{0x77}, handle()}) {
        EXPECT_EQ(status(NTE_INVALID_HANDLE), exported(key, L"PUBLICBLOB", output, 400));
        EXPECT_EQ("Not Found Key = NULL\n", messages(takeLines(), "ERR"));
    }
    EXPECT_TRUE(output.untouched());
}

TEST_F(ImportTest, anEcdhKeyGetsAHandle)
{
    EXPECT_EQ(status(ERROR_SUCCESS), import(L"ECCPUBLICBLOB", peer()));
    EXPECT_NE(0U, key);
    EXPECT_NE(0xEEU, key);
    expectTrace(linesOf("NV::Provider::ImportKey"),
                "dll/keys/blob_transfer/an_ecdh_key_gets_a_handle");
    EXPECT_TRUE(token.calls().empty());
    EXPECT_EQ(status(ERROR_SUCCESS), table()->FreeKey(handle(), key));
    EXPECT_EQ(status(NTE_INVALID_HANDLE), table()->FreeKey(handle(), key));
}

TEST_F(ImportTest, theRsaTypeGoesTheSameWay)
{
    EXPECT_EQ(status(ERROR_SUCCESS), import(L"RSAPUBLICBLOB", peer()));
    EXPECT_NE(0U, key);
}

TEST_F(ImportTest, whatIsNoEcdhKeyGivesANullHandleAndSuccess)
{
    EXPECT_EQ(status(ERROR_SUCCESS), import(L"RSAPUBLICBLOB", someBytes(283)));
    EXPECT_EQ(0U, key);
    for (const size_t length : {1U, 7U, 8U, 71U}) {
        key = 0xEE;
        Bytes cut = peer();
        cut.resize(length);
        EXPECT_EQ(status(ERROR_SUCCESS), import(L"ECCPUBLICBLOB", cut)) << length;
        EXPECT_EQ(0U, key) << length;
    }
}

TEST_F(ImportTest, otherTypesAreNotSupported)
{
    for (const wchar_t* type :
         {L"PUBLICBLOB", L"CAPIPUBLICBLOB", L"eccpublicblob", L"", L"ECCPRIVATEBLOB"}) {
        EXPECT_EQ(status(NTE_NOT_SUPPORTED), import(type, peer()));
        const std::wstring wide = type;
        EXPECT_EQ("Unsupported BLOB type=[" + std::string(wide.begin(), wide.end()) +
                      "] (only RSA/ECC_PUBLIC_BLOB supported)!!\n",
                  messages(takeLines(), "ERR"));
    }
    EXPECT_EQ(0xEEU, key);
}

TEST_F(ImportTest, aParameterListIsOnlyNoted)
{
    NCryptBufferDesc list{};
    Bytes bytes = peer();
    EXPECT_EQ(status(ERROR_SUCCESS), table()->ImportKey(handle(), 0, L"ECCPUBLICBLOB", &list, &key,
                                                        bytes.data(), 72, 0xFFFFFFFF));
    EXPECT_EQ("pParameterList is non-empty!!\n",
              messages(linesOf("NV::Provider::ImportKey"), "DBG"));
    EXPECT_NE(0U, key);
}

TEST_F(ImportTest, theLastFailingArgumentDecides)
{
    Bytes bytes = peer();
    const auto call = [&](NCRYPT_KEY_HANDLE importKey, const wchar_t* type, NCRYPT_KEY_HANDLE* out,
                          BYTE* data, DWORD length) {
        return table()->ImportKey(handle(), importKey, type, nullptr, out, data, length, 0);
    };
    constexpr const wchar_t* good = L"ECCPUBLICBLOB";
    EXPECT_EQ(status(NTE_NOT_SUPPORTED), call(rsa, good, &key, bytes.data(), 72));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), call(rsa, nullptr, &key, bytes.data(), 72));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), call(0, nullptr, &key, bytes.data(), 72));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), call(0, good, nullptr, bytes.data(), 72));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), call(0, good, &key, nullptr, 72));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), call(0, good, &key, bytes.data(), 0));
    EXPECT_EQ(status(NTE_NOT_SUPPORTED), call(0, L"OTHER", nullptr, nullptr, 0));
    EXPECT_EQ(0xEEU, key);
    EXPECT_TRUE(linesOf("NV::KeyStore::addEphemeralKey").empty());
}

TEST_F(ImportTest, anImportedKeyCanBeExportedAndHasProperties)
{
    ASSERT_EQ(status(ERROR_SUCCESS), import(L"ECCPUBLICBLOB", peer()));
    Output output;
    EXPECT_EQ(status(ERROR_SUCCESS), table()->ExportKey(handle(), key, 0, L"ECCPUBLICBLOB", nullptr,
                                                        output.at(), 400, &output.length, 0));
    EXPECT_EQ("4543533120000000" + hexEncode(someBytes(64)),
              hexEncode({output.at(), output.at() + output.length}));
    DWORD length = 0;
    EXPECT_EQ(status(ERROR_SUCCESS),
              table()->GetKeyProperty(handle(), key, L"Algorithm Name", nullptr, 0, &length, 0));
    EXPECT_EQ(22U, length);
}

TEST_F(ImportTest, anImportedKeyDoesNoTokenOperation)
{
    ASSERT_EQ(status(ERROR_SUCCESS), import(L"ECCPUBLICBLOB", peer()));
    Output output;
    EXPECT_EQ(status(NTE_INVALID_HANDLE), table()->SignHash(handle(), key, nullptr, hash.data(), 32,
                                                            output.at(), 64, &output.length, 0));
    EXPECT_EQ(
        status(NTE_INVALID_HANDLE),
        table()->VerifySignature(handle(), key, nullptr, hash.data(), 32, output.at(), 64, 0));
    EXPECT_EQ(status(NTE_INVALID_HANDLE), table()->Encrypt(handle(), key, hash.data(), 32, nullptr,
                                                           output.at(), 64, &output.length, 0x2));
    EXPECT_EQ(status(NTE_INVALID_HANDLE), table()->Decrypt(handle(), key, hash.data(), 32, nullptr,
                                                           output.at(), 64, &output.length, 0x2));
    EXPECT_TRUE(output.untouched());
    EXPECT_TRUE(token.calls().empty());
}

}  // namespace NV::test
