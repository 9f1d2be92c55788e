// What BCrypt has on Windows and not under Wine: the other paddings, names and curves of M7, with the
// stand-in's BCrypt, which is OpenSSL's. The plain texts are read with the certificates' own keys.

#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <memory>

#include "operation_fixture.h"

namespace NV::test {

namespace {

struct KeyFreer {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    void operator()(EVP_PKEY_CTX* context) const { EVP_PKEY_CTX_free(context); }
};

// By the private key of the fixture. Empty if the cipher text has another padding.
Bytes decryptedByKey(const Bytes& cipher, int padding, const EVP_MD* hash = nullptr,
                     const Bytes& label = {})
{
    const std::string file = readFile(std::filesystem::path(CERTIFICATES) / L"rsa2048.key.der");
    const auto* der = reinterpret_cast<const unsigned char*>(file.data());
    const std::unique_ptr<EVP_PKEY, KeyFreer> key(
        d2i_AutoPrivateKey(nullptr, &der, static_cast<long>(file.size())));
    const std::unique_ptr<EVP_PKEY_CTX, KeyFreer> context(EVP_PKEY_CTX_new(key.get(), nullptr));
    EVP_PKEY_decrypt_init(context.get());
    EVP_PKEY_CTX_set_rsa_padding(context.get(), padding);
    if (hash != nullptr)
        EVP_PKEY_CTX_set_rsa_oaep_md(context.get(), hash);
    if (!label.empty())
        EVP_PKEY_CTX_set0_rsa_oaep_label(context.get(), OPENSSL_memdup(label.data(), label.size()),
                                         static_cast<int>(label.size()));
    Bytes plain(512);
    size_t size = plain.size();
    if (EVP_PKEY_decrypt(context.get(), plain.data(), &size, cipher.data(), cipher.size()) != 1)
        return {};
    plain.resize(size);
    return plain;
}

class WholeCertificateKeyTest : public TokenOperationTest {
protected:
    WholeCertificateKeyTest() { token.clearObjects(); }
};

}  // namespace

TEST_F(WholeCertificateKeyTest, verifiesPkcs1WithMd5)
{
    hash = fixtureHash(16);
    BCRYPT_PKCS1_PADDING_INFO padding{L"MD5"};
    const Bytes good = fixtureResult("rsa2048.pkcs1-md5");
    EXPECT_EQ(status(ERROR_SUCCESS), verify(rsa, good, &padding, BCRYPT_PAD_PKCS1));
    hash[0] ^= 1;
    EXPECT_EQ(status(NTE_BAD_SIGNATURE), verify(rsa, good, &padding, BCRYPT_PAD_PKCS1));
}

TEST_F(WholeCertificateKeyTest, verifiesPkcs1OverWhatIsGiven)
{
    hash = fixtureHash(32);
    BCRYPT_PKCS1_PADDING_INFO padding{nullptr};
    const Bytes good = fixtureResult("rsa2048.pkcs1");
    EXPECT_EQ(status(ERROR_SUCCESS), verify(rsa, good, &padding, BCRYPT_PAD_PKCS1));
    EXPECT_EQ(status(ERROR_SUCCESS), verify(rsa, good));
    EXPECT_EQ(status(NTE_BAD_SIGNATURE), verify(rsa, fixtureResult("rsa2048.pkcs1-sha256")));
    EXPECT_EQ(status(NTE_BAD_SIGNATURE), verify(rsa, Bytes(256, 0xFF)));
    // One byte more or less, and more than there is room for.
    for (const size_t size : {31U, 33U, 245U, 246U, 300U}) {
        hash = fixtureHash(size);
        EXPECT_EQ(status(NTE_BAD_SIGNATURE), verify(rsa, good));
    }
}

TEST_F(WholeCertificateKeyTest, verifiesPssWithItsSaltLength)
{
    for (const auto& [name, file, size] :
         {std::tuple<const wchar_t*, const char*, ULONG>{L"SHA1", "sha1", 20},
          {L"SHA512", "sha512", 64}}) {
        hash = fixtureHash(size);
        const Bytes good = fixtureResult(std::string("rsa2048.pss-") + file);
        BCRYPT_PSS_PADDING_INFO padding{name, size};
        EXPECT_EQ(status(ERROR_SUCCESS), verify(rsa, good, &padding, BCRYPT_PAD_PSS));
        padding.cbSalt = size - 1;
        EXPECT_EQ(status(NTE_BAD_SIGNATURE), verify(rsa, good, &padding, BCRYPT_PAD_PSS));
        padding.cbSalt = 2000;
        EXPECT_EQ(status(NTE_BAD_SIGNATURE), verify(rsa, good, &padding, BCRYPT_PAD_PSS));
    }
}

TEST_F(WholeCertificateKeyTest, theOwnerReadsWhatIsEncrypted)
{
    const Bytes plain = someBytes(60);
    EXPECT_EQ(status(ERROR_SUCCESS), encrypt(rsa, plain, 256));
    EXPECT_EQ(plain, decryptedByKey(written(256), RSA_PKCS1_PADDING));

    for (const auto& [name, hashAlgorithm] :
         {std::pair<const wchar_t*, const EVP_MD*>{L"SHA1", EVP_sha1()},
          {L"SHA256", EVP_sha256()},
          {L"SHA384", EVP_sha384()},
          {L"SHA512", EVP_sha512()}}) {
        Bytes label{'l', 'a', 'b', 'e', 'l'};
        BCRYPT_OAEP_PADDING_INFO oaep{name, label.data(), 5};
        EXPECT_EQ(status(ERROR_SUCCESS), encrypt(rsa, plain, 256, &oaep, BCRYPT_PAD_OAEP));
        EXPECT_EQ(plain,
                  decryptedByKey(written(256), RSA_PKCS1_OAEP_PADDING, hashAlgorithm, label));
        EXPECT_EQ(Bytes{}, decryptedByKey(written(256), RSA_PKCS1_OAEP_PADDING, hashAlgorithm));
    }
    BCRYPT_OAEP_PADDING_INFO oaep{L"SHA256", nullptr, 0};
    EXPECT_EQ(status(ERROR_SUCCESS), encrypt(rsa, Bytes(190), 256, &oaep, BCRYPT_PAD_OAEP));
    EXPECT_EQ(Bytes(190), decryptedByKey(written(256), RSA_PKCS1_OAEP_PADDING, EVP_sha256()));
}

// Zeros come before a number that is shorter than the modulus, as on the token.
TEST_F(WholeCertificateKeyTest, withoutPaddingTheCipherTextIsTheOneOfOpenSsl)
{
    const Bytes expected = fixtureResult("rsa2048.cipher");
    EXPECT_EQ(status(ERROR_SUCCESS), encrypt(rsa, fixtureHash(32), 256, nullptr, BCRYPT_PAD_NONE));
    EXPECT_EQ(expected, written(256));
    Bytes whole(224);
    const Bytes number = fixtureHash(32);
    whole.insert(whole.end(), number.begin(), number.end());
    EXPECT_EQ(status(ERROR_SUCCESS), encrypt(rsa, whole, 256, nullptr, BCRYPT_PAD_NONE));
    EXPECT_EQ(expected, written(256));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              encrypt(rsa, Bytes(256, 0xFF), 256, nullptr, BCRYPT_PAD_NONE));
}

// Whose exponent is not 65537.
TEST_F(ModernModuleTest, aKeyWithAnotherExponentVerifies)
{
    addCertificateWithKey(token, {0x01, 0x03}, "rsa1024");
    start();
    token.clearObjects();
    Bytes hash = fixtureHash(32);
    Bytes signature = fixtureResult("rsa1024.pkcs1-sha256");
    BCRYPT_PKCS1_PADDING_INFO padding{L"SHA256"};
    const auto verify = [&] {
        return table()->VerifySignature(handle(), openKey(L"0103"), &padding, hash.data(), 32,
                                        signature.data(), 128, BCRYPT_PAD_PKCS1);
    };
    EXPECT_EQ(status(ERROR_SUCCESS), verify());
    signature[3] ^= 1;
    EXPECT_EQ(status(NTE_BAD_SIGNATURE), verify());
}

TEST_F(ModernModuleTest, theOtherCurvesVerifyByTheirCertificates)
{
    addCertificateWithKey(token, {0x03, 0x84}, "p384");
    addCertificateWithKey(token, {0x05, 0x21}, "p521");
    addCertificateWithKey(token, {0x02, 0x57}, "brainpoolP320r1");
    start();
    token.clearObjects();
    Bytes hash = fixtureHash(32);
    const auto verify = [&](const wchar_t* name, Bytes signature) {
        return table()->VerifySignature(handle(), openKey(name), nullptr, hash.data(), 32,
                                        signature.data(), static_cast<DWORD>(signature.size()), 0);
    };
    EXPECT_EQ(status(ERROR_SUCCESS), verify(L"0384", fixtureResult("p384.ecdsa")));
    EXPECT_EQ(status(ERROR_SUCCESS), verify(L"0521", fixtureResult("p521.ecdsa")));
    EXPECT_EQ(status(NTE_BAD_SIGNATURE), verify(L"0521", Bytes(132, 1)));
    // BCrypt does not have its curve.
    EXPECT_EQ(status(NTE_NO_KEY), verify(L"0257", Bytes(80, 1)));
}

}  // namespace NV::test
