// RSA encryption with keys on the token: what the provider encrypts OpenSSL decrypts, and the other
// way round.

#include <string>

#include "token_test.h"

namespace NV::test {

namespace {

class RsaEncryption : public TokenTest, public testing::WithParamInterface<TokenKey> {
protected:
    // Both directions, for plain texts of these lengths.
    static void expectBothWays(const Padding& padding, const std::string& options, DWORD shortest,
                               DWORD longest)
    {
        const OpenedKey key = open(GetParam());
        for (const DWORD size : {shortest, longest}) {
            SCOPED_TRACE(size);
            Bytes plain = arbitraryBytes(size);
            // As a number it must be below the modulus, for the case that nothing pads it.
            plain.front() &= 0x3F;
            const Outcome cipher = key.encrypt(padding, plain);
            ASSERT_EQ(cipher.status, ERROR_SUCCESS);
            EXPECT_EQ(cipher.bytes.size(), GetParam().bytes());
            EXPECT_EQ(openSsl().decrypt(GetParam(), cipher.bytes, options), plain);

            const Outcome decrypted = key.decrypt(
                padding, openSsl().encrypt(GetParam(), plain, options), GetParam().bytes());
            EXPECT_EQ(decrypted.status, ERROR_SUCCESS);
            EXPECT_EQ(decrypted.bytes, plain);
        }
    }
};

INSTANTIATE_TEST_SUITE_P(Token, RsaEncryption, testing::ValuesIn(rsaKeys), keyOf);

constexpr char pkcs1[] = "-pkeyopt rsa_padding_mode:pkcs1";
constexpr char oaep[] = "-pkeyopt rsa_padding_mode:oaep -pkeyopt rsa_oaep_md:sha1";

}  // namespace

TEST_P(RsaEncryption, Pkcs1BothWays)
{
    expectBothWays(Padding::pkcs1(nullptr), pkcs1, 1, GetParam().bytes() - 11);
    expectBothWays(Padding::pkcs1WithoutInformation(), pkcs1, 32, 48);
}

TEST_P(RsaEncryption, RawBothWays)
{
    expectBothWays(Padding::raw(), "-pkeyopt rsa_padding_mode:none", GetParam().bytes(),
                   GetParam().bytes());
}

TEST_P(RsaEncryption, OaepBothWays)
{
    expectBothWays(Padding::oaep(sha1.cng), oaep, 1, GetParam().bytes() - 2 * sha1.size - 2);
}

// SoftHSM2 knows OAEP with SHA-1 and without a label alone. Its refusal must arrive, not a cipher
// text that somebody expects to be bound to the label.
TEST_P(RsaEncryption, OaepThatTheTokenDoesNotKnowFails)
{
    const OpenedKey key = open(GetParam());
    const Bytes plain = arbitraryBytes(16);
    const Bytes withSha1 = openSsl().encrypt(GetParam(), plain, oaep);
    for (const wchar_t* algorithm : {sha256.cng, sha384.cng, sha512.cng, L"MD5"}) {
        const Padding padding = Padding::oaep(algorithm);
        EXPECT_EQ(key.encrypt(padding, plain).status, NTE_INTERNAL_ERROR);
        EXPECT_EQ(key.decrypt(padding, withSha1, GetParam().bytes()).status, NTE_INTERNAL_ERROR);
    }
    Bytes label = {'l', 'a', 'b', 'e', 'l'};
    const Padding labelled = Padding::oaep(sha1.cng, &label);
    const Bytes withLabel = openSsl().encrypt(
        GetParam(), plain, oaep + (" -pkeyopt rsa_oaep_label:" + hexEncode(label)));
    EXPECT_EQ(key.encrypt(labelled, plain).status, NTE_INTERNAL_ERROR);
    EXPECT_EQ(key.decrypt(labelled, withLabel, GetParam().bytes()).status, NTE_INTERNAL_ERROR);
    EXPECT_EQ(key.decrypt(Padding::oaep(sha1.cng), withLabel, GetParam().bytes()).status,
              NTE_INTERNAL_ERROR);
}

TEST_P(RsaEncryption, PlainTextThatDoesNotFitFails)
{
    const OpenedKey key = open(GetParam());
    const DWORD size = GetParam().bytes();
    EXPECT_EQ(key.encrypt(Padding::pkcs1(nullptr), arbitraryBytes(size - 10)).status,
              NTE_INTERNAL_ERROR);
    EXPECT_EQ(key.encrypt(Padding::oaep(sha1.cng), arbitraryBytes(size - 41)).status,
              NTE_INTERNAL_ERROR);
    // A number above the modulus is no message. (One of more bytes than the modulus would make
    // SoftHSM2 end the process.)
    EXPECT_EQ(key.encrypt(Padding::raw(), Bytes(size, 0xFF)).status, NTE_INTERNAL_ERROR);
}

TEST_P(RsaEncryption, ChangedCipherTextDoesNotGiveThePlainText)
{
    const OpenedKey key = open(GetParam());
    const Bytes plain = arbitraryBytes(16);
    const Bytes cipher = changed(openSsl().encrypt(GetParam(), plain, oaep), 30);
    const Outcome outcome = key.decrypt(Padding::oaep(sha1.cng), cipher, GetParam().bytes());
    EXPECT_EQ(outcome.status, NTE_INTERNAL_ERROR);
    EXPECT_EQ(outcome.bytes, Bytes{});
}

TEST_P(RsaEncryption, CancelledDialogDecryptsNothing)
{
    const OpenedKey key = open(GetParam());
    const Bytes cipher = openSsl().encrypt(GetParam(), arbitraryBytes(16), pkcs1);
    const Outcome outcome = key.decrypt(Padding::pkcs1(nullptr), cipher, GetParam().bytes(),
                                        DialogDriver::cancelling());
    EXPECT_EQ(outcome.status, NTE_USER_CANCELLED);
    EXPECT_EQ(outcome.bytes, Bytes{});
    EXPECT_EQ(key.decrypt(Padding::pkcs1(nullptr), cipher, GetParam().bytes()).status,
              ERROR_SUCCESS);
}

// A length query of Decrypt asks for the PIN like any other, and returns at least the length needed.
TEST_P(RsaEncryption, LengthQueries)
{
    const OpenedKey key = open(GetParam());
    const Bytes plain = arbitraryBytes(16);
    Bytes cipher = openSsl().encrypt(GetParam(), plain, pkcs1);
    Padding padding = Padding::pkcs1(nullptr);
    DWORD length = 0;
    const DialogDriver user(DialogDriver::entering(tokenPin));
    EXPECT_EQ(module()->Decrypt(provider(), key.handle(), cipher.data(),
                                static_cast<DWORD>(cipher.size()), padding.information(), nullptr,
                                0, &length, padding.flags()),
              ERROR_SUCCESS);
    EXPECT_EQ(user.answered(), 1);
    EXPECT_GE(length, plain.size());
    EXPECT_LE(length, GetParam().bytes());
}

}  // namespace NV::test
