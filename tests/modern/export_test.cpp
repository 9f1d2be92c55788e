// M8, M11 and M16: what ExportKey gives for each type of blob and kind of key.

#include <algorithm>
#include <cstring>
#include <string>

#include "module_fixture.h"

namespace NV::test {

namespace {

constexpr const wchar_t* allTypes[] = {L"PUBLICBLOB", L"RSAPUBLICBLOB", L"ECCPUBLICBLOB",
                                       L"CAPIPUBLICBLOB"};

Bytes joined(std::initializer_list<Bytes> pieces)
{
    Bytes all;
    for (const Bytes& piece : pieces)
        all.insert(all.end(), piece.begin(), piece.end());
    return all;
}

Bytes number(uint32_t value)
{
    Bytes bytes(4);
    std::memcpy(bytes.data(), &value, 4);
    return bytes;
}

struct RsaKey {
    Bytes modulus;
    Bytes exponent;
    uint32_t bits;
};

// Of a fixture's RSAPublicKey: SEQUENCE { modulus, exponent } with lengths of 128 bytes and more in the
// long form.
RsaKey rsaKeyOf(const std::string& certificate)
{
    const Bytes der = certificateKey(certificate);
    size_t at = 0;
    const auto contents = [&](unsigned char tag) {
        EXPECT_EQ(tag, der.at(at++));
        size_t length = der.at(at++);
        if (length >= 0x80) {
            size_t bytes = length & 0x7F;
            for (length = 0; bytes != 0; --bytes)
                length = length * 256 + der.at(at++);
        }
        return length;
    };
    const auto integer = [&] {
        const size_t length = contents(0x02);
        Bytes bytes(der.begin() + static_cast<std::ptrdiff_t>(at),
                    der.begin() + static_cast<std::ptrdiff_t>(at + length));
        at += length;
        if (bytes.front() == 0)
            bytes.erase(bytes.begin());
        return bytes;
    };
    contents(0x30);
    Bytes modulus = integer();
    Bytes exponent = integer();
    auto bits = static_cast<uint32_t>(8 * modulus.size());
    for (unsigned char mark = 0x80; (modulus.front() & mark) == 0; mark >>= 1)
        --bits;
    return {std::move(modulus), std::move(exponent), bits};
}

// BCRYPT_RSAKEY_BLOB: "RSA1", bits, the sizes of exponent and modulus, two zeros; both big-endian.
Bytes rsaBlob(const RsaKey& key)
{
    return joined({{'R', 'S', 'A', '1'},
                   number(key.bits),
                   number(static_cast<uint32_t>(key.exponent.size())),
                   number(static_cast<uint32_t>(key.modulus.size())),
                   Bytes(8),
                   key.exponent,
                   key.modulus});
}

// PUBLICKEYBLOB of CryptoAPI: type 6, version 2, CALG_RSA_KEYX; "RSA1", bits of whole bytes, exponent; the
// modulus little-endian.
Bytes legacyBlob(const RsaKey& key)
{
    Bytes exponent(key.exponent.rbegin(), key.exponent.rend());
    exponent.resize(4);
    return joined({{6, 2, 0, 0, 0, 0xA4, 0, 0},
                   {'R', 'S', 'A', '1'},
                   number(static_cast<uint32_t>(8 * key.modulus.size())),
                   exponent,
                   Bytes(key.modulus.rbegin(), key.modulus.rend())});
}

// What crypt32 makes of the certificate's key.
Bytes legacyBlobBySystem(const std::string& certificate)
{
    const Bytes der = certificateKey(certificate);
    DWORD size = 0;
    EXPECT_TRUE(CryptDecodeObject(X509_ASN_ENCODING, RSA_CSP_PUBLICKEYBLOB, der.data(),
                                  static_cast<DWORD>(der.size()), 0, nullptr, &size));
    Bytes blob(size);
    EXPECT_TRUE(CryptDecodeObject(X509_ASN_ENCODING, RSA_CSP_PUBLICKEYBLOB, der.data(),
                                  static_cast<DWORD>(der.size()), 0, blob.data(), &size));
    return blob;
}

class ModernExportTest : public ModernModuleTest {
protected:
    NCRYPT_KEY_HANDLE serve(const std::string& certificate)
    {
        token.addCertificate(Bytes{0x01}, certificateDer(certificate));
        token.addRsaKeyPair({0x01}, 2048);  // any public key object
        start();
        return openKey(L"01");
    }

    SECURITY_STATUS exported(NCRYPT_KEY_HANDLE key, const wchar_t* type)
    {
        blob.assign(600, 0xEE);
        length = 0xEEEE;
        const SECURITY_STATUS result =
            table()->ExportKey(handle(), key, 0, type, nullptr, blob.data(), 600, &length, 0);
        if (result == ERROR_SUCCESS)
            blob.resize(length);
        return result;
    }
    // Refused, with nothing written.
    void expectRefused(NCRYPT_KEY_HANDLE key, const wchar_t* type)
    {
        takeLines();
        EXPECT_EQ(status(NTE_NOT_SUPPORTED), exported(key, type));
        EXPECT_EQ(Bytes(600, 0xEE), blob);
        EXPECT_EQ(0xEEEEU, length);
        const std::wstring wide = type;
        EXPECT_EQ("Not Supported BlobType = " + std::string(wide.begin(), wide.end()) + "\n",
                  messages(takeLines(), "ERR"));
    }
    Bytes exportedBlob(NCRYPT_KEY_HANDLE key, const wchar_t* type)
    {
        EXPECT_EQ(status(ERROR_SUCCESS), exported(key, type));
        return blob;
    }

    Bytes blob;
    DWORD length = 0;
};

struct ExportedRsaKey {
    const char* certificate;
    const char* exponent;
    uint32_t bits;
};

class EveryRsaExportTest : public ModernExportTest,
                           public testing::WithParamInterface<ExportedRsaKey> {};

class OtherCurveExportTest : public ModernExportTest,
                             public testing::WithParamInterface<const char*> {};

using ModernBlobTest = ModernKeysTest;

}  // namespace

TEST_P(EveryRsaExportTest, givesTheKeysOwnExponentAndLength)
{
    const RsaKey key = rsaKeyOf(GetParam().certificate);
    ASSERT_EQ(GetParam().exponent, hexEncode(key.exponent));
    ASSERT_EQ(GetParam().bits, key.bits);
    const NCRYPT_KEY_HANDLE handle = serve(GetParam().certificate);
    EXPECT_EQ(rsaBlob(key), exportedBlob(handle, L"RSAPUBLICBLOB"));
    EXPECT_EQ(rsaBlob(key), exportedBlob(handle, L"PUBLICBLOB"));
    EXPECT_EQ(legacyBlob(key), exportedBlob(handle, L"CAPIPUBLICBLOB"));
    EXPECT_EQ(legacyBlobBySystem(GetParam().certificate), blob);
    expectRefused(handle, L"ECCPUBLICBLOB");
    EXPECT_TRUE(token.calls().empty());
}

INSTANTIATE_TEST_SUITE_P(Keys, EveryRsaExportTest,
                         testing::Values(ExportedRsaKey{"rsa2048", "010001", 2048},
                                         ExportedRsaKey{"rsa1024", "03", 1024},
                                         ExportedRsaKey{"rsa1031", "80000001", 1031}),
                         [](const auto& row) { return std::string(row.param.certificate); });

TEST_F(ModernExportTest, ofRsaIsTraced)
{
    const NCRYPT_KEY_HANDLE key = serve("rsa1024");
    takeLines();
    const std::string expected = hexEncode(exportedBlob(key, L"PUBLICBLOB"));
    const std::string der = hexEncode(certificateKey("rsa1024"));
    std::string lines;
    for (const LogLine& line : linesOf("NV::P11RSAKeyObject::getPubkeyBlob"))
        lines += line.level + " " + line.message + "\n";
    EXPECT_EQ("TRC ENTER\nTRC RSA PublicKey = " + der + " (" + std::to_string(der.size() / 2) +
                  " bytes)\nTRC dwModulusSize = 128\nTRC dwExponent = 3\nTRC dwMagic = 31415352\n"
                  "TRC RSA PublicKey Blob = " +
                  expected + "\nTRC LEAVE\n",
              lines);
}

TEST_F(ModernExportTest, eachNamedCurveOfCngHasItsMagic)
{
    struct Row {
        CK_BYTE id;
        const char* certificate;
        const char* head;
        const wchar_t* name;
    };
    const Row rows[] = {{0x01, "p256", "4543533120000000", L"01"},
                        {0x02, "p384", "4543533330000000", L"02"},
                        {0x03, "p521", "4543533542000000", L"03"}};
    for (const Row& row : rows) {
        token.addCertificate(Bytes{row.id}, certificateDer(row.certificate));
        token.addRsaKeyPair({row.id}, 2048);
    }
    start();
    for (const Row& row : rows) {
        const NCRYPT_KEY_HANDLE key = openKey(row.name);
        const std::string expected =
            row.head + hexEncode(certificateKey(row.certificate)).substr(2);
        EXPECT_EQ(expected, hexEncode(exportedBlob(key, L"PUBLICBLOB")));
        EXPECT_EQ(expected, hexEncode(exportedBlob(key, L"ECCPUBLICBLOB")));
        expectRefused(key, L"RSAPUBLICBLOB");
        expectRefused(key, L"CAPIPUBLICBLOB");
    }
}

TEST_P(OtherCurveExportTest, isNotSupported)
{
    const NCRYPT_KEY_HANDLE key = serve(GetParam());
    for (const wchar_t* type : allTypes)
        expectRefused(key, type);
}

INSTANTIATE_TEST_SUITE_P(Curves, OtherCurveExportTest,
                         testing::Values("secp256k1", "brainpoolP320r1", "explicit256"),
                         [](const auto& row) { return std::string(row.param); });

TEST_F(ModernBlobTest, anImportedKeyIsExportedAsAKeyOfItsKind)
{
    Bytes blob = hexDecode("45434B3120000000");
    const Bytes point = someBytes(64);
    blob.insert(blob.end(), point.begin(), point.end());
    NCRYPT_KEY_HANDLE imported = 0;
    ASSERT_EQ(status(ERROR_SUCCESS), table()->ImportKey(handle(), 0, L"ECCPUBLICBLOB", nullptr,
                                                        &imported, blob.data(), 72, 0));
    for (const wchar_t* type : {L"PUBLICBLOB", L"ECCPUBLICBLOB"}) {
        Output output;
        EXPECT_EQ(status(ERROR_SUCCESS), table()->ExportKey(handle(), imported, 0, type, nullptr,
                                                            output.at(), 72, &output.length, 0));
        EXPECT_EQ("4543533120000000" + hexEncode(point),
                  hexEncode(output.at(), static_cast<int32_t>(output.length)));
    }
    for (const wchar_t* type : {L"RSAPUBLICBLOB", L"CAPIPUBLICBLOB"}) {
        Output output;
        EXPECT_EQ(status(NTE_NOT_SUPPORTED),
                  table()->ExportKey(handle(), imported, 0, type, nullptr, output.at(), 72,
                                     &output.length, 0));
        EXPECT_TRUE(output.untouched());
    }
}

TEST_F(ModernBlobTest, aShortBufferTellsTheLength)
{
    struct Row {
        NCRYPT_KEY_HANDLE key;
        const wchar_t* type;
        DWORD size;
    };
    for (const auto& [key, type, size] :
         {Row{rsa, L"PUBLICBLOB", 283}, Row{rsa, L"CAPIPUBLICBLOB", 276},
          Row{ec, L"ECCPUBLICBLOB", 72}}) {
        for (const DWORD room : {size - 1, DWORD{1}, DWORD{0}}) {
            Output output;
            EXPECT_EQ(status(NTE_BUFFER_TOO_SMALL),
                      table()->ExportKey(handle(), key, 0, type, nullptr, output.at(), room,
                                         &output.length, 0));
            EXPECT_EQ(size, output.length);
            EXPECT_TRUE(output.onlyWritten(0));
        }
        for (const DWORD room : {size, size + 1}) {
            Output output;
            EXPECT_EQ(status(ERROR_SUCCESS),
                      table()->ExportKey(handle(), key, 0, type, nullptr, output.at(), room,
                                         &output.length, 0));
            EXPECT_EQ(size, output.length);
            EXPECT_TRUE(output.onlyWritten(size));
        }
        DWORD length = 0;
        EXPECT_EQ(status(ERROR_SUCCESS),
                  table()->ExportKey(handle(), key, 0, type, nullptr, nullptr, 0, &length, 0));
        EXPECT_EQ(size, length);
    }
    EXPECT_TRUE(token.calls().empty());
}

TEST_F(ModernBlobTest, wrongArgumentsAreRefused)
{
    Output output;
    const auto call = [&](NCRYPT_KEY_HANDLE key, NCRYPT_KEY_HANDLE exportKey, const wchar_t* type,
                          DWORD* length) {
        return table()->ExportKey(handle(), key, exportKey, type, nullptr, output.at(), 400, length,
                                  0);
    };
    EXPECT_EQ(status(NTE_NOT_SUPPORTED), call(rsa, ec, L"PUBLICBLOB", &output.length));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), call(0, 0, L"PUBLICBLOB", &output.length));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), call(rsa, 0, nullptr, &output.length));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), call(rsa, 0, L"PUBLICBLOB", nullptr));
    for (const wchar_t* type : {L"", L"publicblob", L"PUBLICBLOB ", L"RSAPRIVATEBLOB"})
        EXPECT_EQ(status(NTE_NOT_SUPPORTED), call(rsa, 0, type, &output.length));
    const OpenedProvider other(table());
    const NCRYPT_KEY_HANDLE foreign = other.openKey(L"01AB");
    for (const NCRYPT_KEY_HANDLE key : {NCRYPT_KEY_HANDLE{0x77}, handle(), foreign})
        EXPECT_EQ(status(NTE_INVALID_HANDLE), call(key, 0, L"PUBLICBLOB", &output.length));
    EXPECT_TRUE(output.untouched());
}

}  // namespace NV::test
