// The modern behaviour with keys on the token: signatures by each hash name, verification, encryption,
// statuses, derivation, and the certificate's key on a token without public keys. OpenSSL is the judge.

#include <string>

#include "ecdsa_der.h"
#include "token_test.h"

namespace NV::test {

namespace {

constexpr HashName md5 = {L"MD5", "md5", 16};
constexpr HashName pkcs1Names[] = {md5, sha1, sha256, sha384, sha512};

std::string pkcs1For(const HashName& hash)
{
    return std::string("-pkeyopt rsa_padding_mode:pkcs1 -pkeyopt digest:") + hash.openSsl;
}

std::string pssFor(const HashName& hash)
{
    return std::string("-pkeyopt rsa_padding_mode:pss -pkeyopt digest:") + hash.openSsl +
           " -pkeyopt rsa_pss_saltlen:" + std::to_string(hash.size);
}

constexpr char rawPkcs1[] = "-pkeyopt rsa_padding_mode:pkcs1";
constexpr char oaep[] = "-pkeyopt rsa_padding_mode:oaep -pkeyopt rsa_oaep_md:sha1";

class ModernRsa : public ModernTokenTest, public testing::WithParamInterface<TokenKey> {};
class ModernEc : public ModernTokenTest, public testing::WithParamInterface<TokenKey> {};
class ModernToken : public ModernTokenTest {};

INSTANTIATE_TEST_SUITE_P(Token, ModernRsa, testing::ValuesIn(rsaKeys), keyOf);
INSTANTIATE_TEST_SUITE_P(Token, ModernEc, testing::ValuesIn(ecKeys), keyOf);

// The token has no public key objects.
class ModernWithoutPublicKeys : public TokenTest {
public:
    static void SetUpTestSuite() { openToken(tokenFolderWithoutPublicKeys(), Behaviour::modern); }
};

}  // namespace

TEST_P(ModernRsa, Pkcs1SignaturesOfEachNameAreThoseOfOpenSsl)
{
    const OpenedKey key = open(GetParam());
    for (const HashName& hash : pkcs1Names) {
        SCOPED_TRACE(hash.openSsl);
        const Bytes value = arbitraryBytes(hash.size);
        const Padding padding = Padding::pkcs1(hash.cng);
        const Outcome own = key.sign(padding, value);
        ASSERT_EQ(own.status, ERROR_SUCCESS);
        EXPECT_EQ(own.bytes, openSsl().sign(GetParam(), value, pkcs1For(hash)));
        EXPECT_EQ(key.verify(padding, value, own.bytes), ERROR_SUCCESS);
        EXPECT_EQ(key.verify(padding, changed(value), own.bytes), NTE_BAD_SIGNATURE);
        EXPECT_EQ(key.verify(padding, value, changed(own.bytes, 30)), NTE_BAD_SIGNATURE);
        EXPECT_EQ(key.verify(Padding::pkcs1(nullptr), value, own.bytes), NTE_BAD_SIGNATURE);
    }
}

TEST_P(ModernRsa, Pkcs1WithoutANameSignsWhatIsGiven)
{
    const OpenedKey key = open(GetParam());
    for (const DWORD size : {DWORD{1}, DWORD{36}, GetParam().bytes() - 11}) {
        const Bytes value = arbitraryBytes(size);
        const Outcome own = key.sign(Padding::pkcs1(nullptr), value);
        ASSERT_EQ(own.status, ERROR_SUCCESS);
        EXPECT_EQ(openSsl().recovered(GetParam(), own.bytes), value);
        EXPECT_EQ(key.verify(Padding::pkcs1(nullptr), value, own.bytes), ERROR_SUCCESS);
        EXPECT_EQ(key.verify(Padding::none(), value, own.bytes), ERROR_SUCCESS);
    }
}

TEST_P(ModernRsa, PssVerifiesOnBothSides)
{
    const OpenedKey key = open(GetParam());
    for (const HashName& hash : hashNames) {
        SCOPED_TRACE(hash.openSsl);
        const Bytes value = arbitraryBytes(hash.size);
        const Padding padding = Padding::pss(hash.cng, hash.size);
        const Outcome own = key.sign(padding, value);
        ASSERT_EQ(own.status, ERROR_SUCCESS);
        EXPECT_TRUE(openSsl().verifies(GetParam(), value, own.bytes, pssFor(hash)));
        const Bytes others = openSsl().sign(GetParam(), value, pssFor(hash));
        EXPECT_EQ(key.verify(padding, value, others), ERROR_SUCCESS);
        EXPECT_EQ(key.verify(padding, changed(value), others), NTE_BAD_SIGNATURE);
        EXPECT_EQ(key.verify(padding, value, changed(others, 20)), NTE_BAD_SIGNATURE);
    }
}

TEST_P(ModernRsa, UnknownNamesAndWrongLengthsAreRefused)
{
    const OpenedKey key = open(GetParam());
    const Bytes value = arbitraryBytes(sha256.size);
    const Bytes signature(GetParam().bytes());
    for (const Padding& padding : {Padding::pkcs1(L"sha256"), Padding::pss(nullptr, 32)})
        EXPECT_EQ(key.verify(padding, value, signature), NTE_NOT_SUPPORTED);
    for (const Padding& padding : {Padding::pkcs1(sha1.cng), Padding::pss(sha384.cng, 32)})
        EXPECT_EQ(key.verify(padding, value, signature), NTE_INVALID_PARAMETER);
    const Padding padding = Padding::pkcs1(sha256.cng);
    EXPECT_EQ(key.verify(padding, value, Bytes(GetParam().bytes() - 1)), NTE_BAD_SIGNATURE);
    EXPECT_EQ(key.verify(padding, value, Bytes(GetParam().bytes() + 1)), NTE_BAD_SIGNATURE);
}

TEST_P(ModernRsa, EncryptionBothWays)
{
    const OpenedKey key = open(GetParam());
    const Bytes plain = arbitraryBytes(48);
    const DWORD size = GetParam().bytes();
    for (const auto& [padding, options] :
         {std::pair<Padding, const char*>{Padding::pkcs1(nullptr), rawPkcs1},
          {Padding::oaep(sha1.cng), oaep}}) {
        SCOPED_TRACE(options);
        const Outcome cipher = key.encrypt(padding, plain);
        ASSERT_EQ(cipher.status, ERROR_SUCCESS);
        EXPECT_EQ(cipher.bytes.size(), size);
        EXPECT_EQ(openSsl().decrypt(GetParam(), cipher.bytes, options), plain);
        const Bytes others = openSsl().encrypt(GetParam(), plain, options);
        // The room that the plain text needs is enough, and one byte less is not.
        const Outcome fitting = key.decrypt(padding, others, 48);
        EXPECT_EQ(fitting.status, ERROR_SUCCESS);
        EXPECT_EQ(fitting.bytes, plain);
        DWORD length = 0;
        Padding given = padding;
        Bytes small(47, 0xEE);
        Bytes input = others;
        const DialogDriver user(DialogDriver::entering(tokenPin));
        EXPECT_EQ(module()->Decrypt(provider(), key.handle(), input.data(), size,
                                    given.information(), small.data(), 47, &length, given.flags()),
                  NTE_BUFFER_TOO_SMALL);
        EXPECT_EQ(length, 48U);
        EXPECT_EQ(small, Bytes(47, 0xEE));
    }
}

TEST_P(ModernRsa, WhatTheTokenDoesNotKnowIsNotSupported)
{
    const OpenedKey key = open(GetParam());
    EXPECT_EQ(key.encrypt(Padding::oaep(L"MD5"), arbitraryBytes(16)).status, NTE_NOT_SUPPORTED);
    EXPECT_EQ(key.encrypt(Padding::oaep(nullptr), arbitraryBytes(16)).status, NTE_NOT_SUPPORTED);
}

TEST_P(ModernEc, SignaturesVerifyOnBothSides)
{
    const OpenedKey key = open(GetParam());
    for (const HashName& hash : hashNames) {
        SCOPED_TRACE(hash.openSsl);
        const Bytes value = arbitraryBytes(hash.size);
        const Outcome own = key.sign(Padding::none(), value);
        ASSERT_EQ(own.status, ERROR_SUCCESS);
        ASSERT_EQ(own.bytes.size(), 2 * GetParam().bytes());
        EXPECT_TRUE(openSsl().verifies(GetParam(), value, derFromRaw(own.bytes)));
        const Bytes others = rawFromDer(openSsl().sign(GetParam(), value), GetParam().bytes());
        EXPECT_EQ(key.verify(Padding::none(), value, others), ERROR_SUCCESS);
        EXPECT_EQ(key.verify(Padding::none(), changed(value), others), NTE_BAD_SIGNATURE);
        EXPECT_EQ(key.verify(Padding::none(), value, changed(others, 5)), NTE_BAD_SIGNATURE);
        EXPECT_EQ(key.verify(Padding::none(), value, derFromRaw(others)), NTE_BAD_SIGNATURE);
    }
}

TEST_F(ModernToken, AWrongPinIsSaidSoAndTheNextCallAsksAgain)
{
    const OpenedKey key = open(rsa2048);
    const Bytes value = arbitraryBytes(sha256.size);
    const Padding padding = Padding::pkcs1(sha256.cng);
    const Outcome wrong = key.sign(padding, value, DialogDriver::entering(L"keywarden-pin-4712"));
    EXPECT_EQ(wrong.status, SCARD_W_WRONG_CHV);
    EXPECT_EQ(wrong.bytes, Bytes{});
    EXPECT_EQ(key.sign(padding, value, DialogDriver::cancelling()).status, NTE_USER_CANCELLED);
    EXPECT_EQ(key.sign(padding, value).status, ERROR_SUCCESS);
}

TEST_F(ModernToken, AnImportedKeyVerifiesWhatTheTokenSigned)
{
    const OpenedKey key = open(rsa2048);
    Outcome blob = key.exported(BCRYPT_RSAPUBLIC_BLOB);
    ASSERT_EQ(blob.status, ERROR_SUCCESS);
    NCRYPT_KEY_HANDLE imported = 0;
    ASSERT_EQ(module()->ImportKey(provider(), 0, BCRYPT_RSAPUBLIC_BLOB, nullptr, &imported,
                                  blob.bytes.data(), static_cast<DWORD>(blob.bytes.size()), 0),
              ERROR_SUCCESS);
    Bytes value = arbitraryBytes(sha256.size);
    Padding padding = Padding::pkcs1(sha256.cng);
    Outcome own = key.sign(padding, value);
    const auto verify = [&] {
        return module()->VerifySignature(provider(), imported, padding.information(), value.data(),
                                         sha256.size, own.bytes.data(),
                                         static_cast<DWORD>(own.bytes.size()), padding.flags());
    };
    EXPECT_EQ(verify(), ERROR_SUCCESS);
    value.front() ^= 1;
    EXPECT_EQ(verify(), NTE_BAD_SIGNATURE);
    // And decrypts nothing, but encrypts for the token.
    Bytes cipher(256);
    DWORD length = 0;
    EXPECT_EQ(module()->Encrypt(provider(), imported, value.data(), sha256.size,
                                padding.information(), cipher.data(), 256, &length,
                                BCRYPT_PAD_PKCS1),
              ERROR_SUCCESS);
    EXPECT_EQ(openSsl().decrypt(rsa2048, cipher, rawPkcs1), value);
    EXPECT_EQ(module()->FreeKey(provider(), imported), ERROR_SUCCESS);
}

TEST_F(ModernWithoutPublicKeys, TheCertificatesKeyVerifiesRsa)
{
    const OpenedKey key = open(rsa2048);
    for (const HashName& hash : hashNames) {
        SCOPED_TRACE(hash.openSsl);
        const Bytes value = arbitraryBytes(hash.size);
        const Padding padding = Padding::pkcs1(hash.cng);
        const Bytes good = openSsl().sign(rsa2048, value, pkcs1For(hash));
        EXPECT_EQ(key.verify(padding, value, good), ERROR_SUCCESS);
        EXPECT_EQ(key.verify(padding, value, changed(good, 9)), NTE_BAD_SIGNATURE);
        EXPECT_EQ(key.verify(padding, changed(value), good), NTE_BAD_SIGNATURE);
    }
    const Bytes value = arbitraryBytes(sha256.size);
    const Bytes pss = openSsl().sign(rsa2048, value, pssFor(sha256));
    EXPECT_EQ(key.verify(Padding::pss(sha256.cng, 32), value, pss), ERROR_SUCCESS);
    EXPECT_EQ(key.verify(Padding::pss(sha256.cng, 32), changed(value), pss), NTE_BAD_SIGNATURE);
}

TEST_F(ModernWithoutPublicKeys, TheCertificatesKeyVerifiesEc)
{
    for (const TokenKey& each : {p256, p384}) {
        SCOPED_TRACE(each.file);
        const OpenedKey key = open(each);
        const Bytes value = arbitraryBytes(sha256.size);
        const Bytes good = rawFromDer(openSsl().sign(each, value), each.bytes());
        EXPECT_EQ(key.verify(Padding::none(), value, good), ERROR_SUCCESS);
        EXPECT_EQ(key.verify(Padding::none(), value, changed(good)), NTE_BAD_SIGNATURE);
        // The token's own signature, too.
        const Outcome own = key.sign(Padding::none(), value);
        ASSERT_EQ(own.status, ERROR_SUCCESS);
        EXPECT_EQ(key.verify(Padding::none(), value, own.bytes), ERROR_SUCCESS);
    }
}

TEST_F(ModernWithoutPublicKeys, TheCertificatesKeyEncrypts)
{
    const OpenedKey key = open(rsa2048);
    const Bytes plain = arbitraryBytes(48);
    const Outcome cipher = key.encrypt(Padding::pkcs1WithoutInformation(), plain);
    ASSERT_EQ(cipher.status, ERROR_SUCCESS);
    EXPECT_EQ(openSsl().decrypt(rsa2048, cipher.bytes, rawPkcs1), plain);
    EXPECT_EQ(key.decrypt(Padding::pkcs1(nullptr), cipher.bytes, 48).bytes, plain);
}

// Wine's BCrypt has no P-521, no MD5, no OAEP and nothing without a hash name.
TEST_F(ModernWithoutPublicKeys, WhatBCryptDoesNotHaveIsTheTokensFailure)
{
    const OpenedKey ec = open(ecKeys[2]);
    EXPECT_EQ(ec.verify(Padding::none(), arbitraryBytes(32), Bytes(132, 1)), NTE_NO_KEY);
    const OpenedKey rsa = open(rsa2048);
    EXPECT_EQ(rsa.verify(Padding::pkcs1(md5.cng), arbitraryBytes(16), Bytes(256, 1)), NTE_NO_KEY);
    EXPECT_EQ(rsa.verify(Padding::none(), arbitraryBytes(16), Bytes(256, 1)), NTE_NO_KEY);
    const OpenedKey key = open(rsa2048);
    EXPECT_EQ(key.encrypt(Padding::oaep(sha1.cng), arbitraryBytes(16)).status, NTE_NO_KEY);
}

}  // namespace NV::test
