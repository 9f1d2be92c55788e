// RSA signatures with keys on the token: PKCS #1 v1.5 and PSS, judged by OpenSSL, and the provider's
// verification of its own and of OpenSSL's.

#include <optional>
#include <string>

#include "token_test.h"

namespace NV::test {

namespace {

class RsaSignature : public TokenTest, public testing::WithParamInterface<TokenKey> {};

INSTANTIATE_TEST_SUITE_P(Token, RsaSignature, testing::ValuesIn(rsaKeys), keyOf);

std::string pkcs1For(const HashName& hash)
{
    return std::string("-pkeyopt rsa_padding_mode:pkcs1 -pkeyopt digest:") + hash.openSsl;
}

std::string pssFor(const HashName& hash, DWORD saltSize)
{
    return std::string("-pkeyopt rsa_padding_mode:pss -pkeyopt digest:") + hash.openSsl +
           " -pkeyopt rsa_pss_saltlen:" + std::to_string(saltSize);
}

// RFC 8017, 9.1.1: a hash, a salt and two bytes must fit.
DWORD longestSalt(const TokenKey& key, const HashName& hash)
{
    return key.bytes() - hash.size - 2;
}

}  // namespace

TEST_P(RsaSignature, Pkcs1WithAHashNameVerifiesInOpenSsl)
{
    const OpenedKey key = open(GetParam());
    for (const HashName& hash : {sha256, sha384, sha512}) {
        SCOPED_TRACE(hash.openSsl);
        const Bytes value = arbitraryBytes(hash.size);
        const Outcome signature = key.sign(Padding::pkcs1(hash.cng), value);
        ASSERT_EQ(signature.status, ERROR_SUCCESS);
        EXPECT_EQ(signature.bytes.size(), GetParam().bytes());
        EXPECT_TRUE(openSsl().verifies(GetParam(), value, signature.bytes, pkcs1For(hash)));
        EXPECT_FALSE(
            openSsl().verifies(GetParam(), changed(value), signature.bytes, pkcs1For(hash)));
        // PKCS #1 v1.5 leaves nothing to chance: the signature is OpenSSL's own.
        EXPECT_EQ(signature.bytes, openSsl().sign(GetParam(), value, pkcs1For(hash)));
    }
}

TEST_P(RsaSignature, Pkcs1WithSha1SignsTheBareHash)
{
    const OpenedKey key = open(GetParam());
    const Bytes value = arbitraryBytes(sha1.size);
    const Outcome signature = key.sign(Padding::pkcs1(sha1.cng), value);
    ASSERT_EQ(signature.status, ERROR_SUCCESS);
    EXPECT_EQ(openSsl().recovered(GetParam(), signature.bytes), value);
    EXPECT_TRUE(
        openSsl().verifies(GetParam(), value, signature.bytes, "-pkeyopt rsa_padding_mode:pkcs1"));
    EXPECT_FALSE(openSsl().verifies(GetParam(), value, signature.bytes, pkcs1For(sha1)));
}

TEST_P(RsaSignature, Pkcs1WithoutAKnownHashNameSignsWhatIsGiven)
{
    const OpenedKey key = open(GetParam());
    const DWORD longest = GetParam().bytes() - 11;
    for (const wchar_t* algorithm : {static_cast<const wchar_t*>(nullptr), L"MD5", L"sha256"}) {
        for (const DWORD size : {DWORD{1}, DWORD{36}, longest}) {
            SCOPED_TRACE(size);
            const Bytes value = arbitraryBytes(size);
            const Outcome signature = key.sign(Padding::pkcs1(algorithm), value);
            ASSERT_EQ(signature.status, ERROR_SUCCESS);
            EXPECT_EQ(openSsl().recovered(GetParam(), signature.bytes), value);
            EXPECT_EQ(key.verify(Padding::pkcs1(algorithm), value, signature.bytes), ERROR_SUCCESS);
        }
    }
    EXPECT_EQ(key.sign(Padding::pkcs1(nullptr), arbitraryBytes(longest + 1)).status,
              NTE_INTERNAL_ERROR);
}

// No flag at all, and PSS with a hash that it does not know, are PKCS #1 v1.5 as well.
TEST_P(RsaSignature, NoUsablePaddingIsPkcs1)
{
    const OpenedKey key = open(GetParam());
    const Bytes value = arbitraryBytes(36);
    for (const Padding& padding : {Padding::none(), Padding::pss(L"MD5", 16)}) {
        const Outcome signature = key.sign(padding, value);
        ASSERT_EQ(signature.status, ERROR_SUCCESS);
        EXPECT_EQ(openSsl().recovered(GetParam(), signature.bytes), value);
    }
}

TEST_P(RsaSignature, PssVerifiesInOpenSslWithItsSaltLengthAndNoOther)
{
    const OpenedKey key = open(GetParam());
    for (const HashName& hash : hashNames) {
        const Bytes value = arbitraryBytes(hash.size);
        for (const DWORD salt : {DWORD{0}, DWORD{8}, hash.size, longestSalt(GetParam(), hash)}) {
            SCOPED_TRACE(std::string(hash.openSsl) + ", salt " + std::to_string(salt));
            const Outcome signature = key.sign(Padding::pss(hash.cng, salt), value);
            ASSERT_EQ(signature.status, ERROR_SUCCESS);
            EXPECT_EQ(signature.bytes.size(), GetParam().bytes());
            EXPECT_TRUE(openSsl().verifies(GetParam(), value, signature.bytes, pssFor(hash, salt)));
            EXPECT_FALSE(
                openSsl().verifies(GetParam(), value, signature.bytes, pssFor(hash, salt + 1)));
        }
    }
}

TEST_P(RsaSignature, PssWithMoreSaltThanFitsFails)
{
    const OpenedKey key = open(GetParam());
    for (const HashName& hash : hashNames) {
        const Outcome outcome = key.sign(Padding::pss(hash.cng, longestSalt(GetParam(), hash) + 1),
                                         arbitraryBytes(hash.size));
        EXPECT_EQ(outcome.status, NTE_INTERNAL_ERROR) << hash.openSsl;
        EXPECT_EQ(outcome.bytes, Bytes{}) << hash.openSsl;
    }
}

TEST_P(RsaSignature, ProviderVerifiesPssOfItsOwnAndOfOpenSsl)
{
    const OpenedKey key = open(GetParam());
    for (const HashName& hash : hashNames) {
        SCOPED_TRACE(hash.openSsl);
        const Bytes value = arbitraryBytes(hash.size, 2);
        const Padding padding = Padding::pss(hash.cng, hash.size);
        const Outcome own = key.sign(padding, value);
        ASSERT_EQ(own.status, ERROR_SUCCESS);
        const Bytes others = openSsl().sign(GetParam(), value, pssFor(hash, hash.size));
        for (const Bytes& signature : {own.bytes, others}) {
            EXPECT_EQ(key.verify(padding, value, signature), ERROR_SUCCESS);
            EXPECT_EQ(key.verify(padding, changed(value), signature), NTE_INTERNAL_ERROR);
            EXPECT_EQ(key.verify(padding, value, changed(signature, 20)), NTE_INTERNAL_ERROR);
        }
        const HashName& another = hash.size == sha1.size ? sha256 : sha1;
        EXPECT_EQ(key.verify(Padding::pss(another.cng, hash.size), value, own.bytes),
                  NTE_INTERNAL_ERROR);
    }
}

// Verification leaves the DigestInfo to the caller where no hash is named. Where one is named, the
// token hashes what it is given: the value that was signed does not verify, the message does.
TEST_P(RsaSignature, ProviderVerifiesPkcs1OverDigestInfoAndHash)
{
    const OpenedKey key = open(GetParam());
    const Bytes message = arbitraryBytes(300, 3);
    for (const HashName& hash : {sha256, sha384, sha512}) {
        SCOPED_TRACE(hash.openSsl);
        const Bytes value = openSsl().digest(hash, message);
        const Outcome signature = key.sign(Padding::pkcs1(hash.cng), value);
        ASSERT_EQ(signature.status, ERROR_SUCCESS);
        EXPECT_EQ(key.verify(Padding::pkcs1(hash.cng), value, signature.bytes), NTE_INTERNAL_ERROR);
        EXPECT_EQ(key.verify(Padding::pkcs1(nullptr), value, signature.bytes), NTE_INTERNAL_ERROR);
        EXPECT_EQ(key.verify(Padding::pkcs1(hash.cng), message, signature.bytes), ERROR_SUCCESS);

        const std::optional<Bytes> signedData = openSsl().recovered(GetParam(), signature.bytes);
        ASSERT_TRUE(signedData);
        EXPECT_EQ(signedData->size(), 19 + hash.size);
        EXPECT_EQ(key.verify(Padding::pkcs1(nullptr), *signedData, signature.bytes), ERROR_SUCCESS);
        EXPECT_EQ(key.verify(Padding::pkcs1(nullptr), changed(*signedData, 30), signature.bytes),
                  NTE_INTERNAL_ERROR);
    }
}

TEST_P(RsaSignature, SignatureOfAnotherLengthDoesNotVerify)
{
    const OpenedKey key = open(GetParam());
    const Bytes value = arbitraryBytes(sha256.size);
    const Bytes good = openSsl().sign(GetParam(), value, pssFor(sha256, sha256.size));
    const Padding padding = Padding::pss(sha256.cng, sha256.size);
    Bytes longer = good;
    longer.push_back(0);
    EXPECT_EQ(key.verify(padding, value, longer), NTE_INTERNAL_ERROR);
    EXPECT_EQ(key.verify(padding, value, Bytes(good.begin(), good.end() - 1)), NTE_INTERNAL_ERROR);
    EXPECT_EQ(key.verify(padding, value, good), ERROR_SUCCESS);
}

TEST_P(RsaSignature, BufferThatIsTooSmallFails)
{
    const OpenedKey key = open(GetParam());
    const Outcome outcome =
        key.signInto(GetParam().bytes() - 1, Padding::pkcs1(sha256.cng),
                     arbitraryBytes(sha256.size), DialogDriver::entering(tokenPin));
    EXPECT_EQ(outcome.status, NTE_INTERNAL_ERROR);
    EXPECT_EQ(outcome.bytes, Bytes{});
}

class Pin : public TokenTest {};

TEST_F(Pin, WrongOneFailsAndTheNextCallAsksAgain)
{
    const OpenedKey key = open(rsa2048);
    const Bytes value = arbitraryBytes(sha256.size);
    const Padding padding = Padding::pkcs1(sha256.cng);
    const Outcome wrong = key.sign(padding, value, DialogDriver::entering(L"keywarden-pin-4712"));
    EXPECT_EQ(wrong.status, NTE_INTERNAL_ERROR);
    EXPECT_EQ(wrong.bytes, Bytes{});
    const Outcome right = key.sign(padding, value);
    ASSERT_EQ(right.status, ERROR_SUCCESS);
    EXPECT_TRUE(openSsl().verifies(rsa2048, value, right.bytes, pkcs1For(sha256)));
}

TEST_F(Pin, CancelledDialogIsSaidSoAndTheNextCallAsksAgain)
{
    const OpenedKey key = open(rsa2048);
    const Bytes value = arbitraryBytes(sha256.size);
    const Padding padding = Padding::pkcs1(sha256.cng);
    const Outcome cancelled = key.sign(padding, value, DialogDriver::cancelling());
    EXPECT_EQ(cancelled.status, NTE_USER_CANCELLED);
    EXPECT_EQ(cancelled.bytes, Bytes{});
    const Outcome right = key.sign(padding, value);
    ASSERT_EQ(right.status, ERROR_SUCCESS);
    EXPECT_TRUE(openSsl().verifies(rsa2048, value, right.bytes, pkcs1For(sha256)));
}

// A second signature without the PIN would mean that the PIN or the login was still there.
TEST_F(Pin, IsAskedForEachSignature)
{
    const OpenedKey key = open(rsa2048);
    const Bytes value = arbitraryBytes(sha256.size);
    ASSERT_EQ(key.sign(Padding::pkcs1(sha256.cng), value).status, ERROR_SUCCESS);
    EXPECT_EQ(key.sign(Padding::pkcs1(sha256.cng), value, DialogDriver::cancelling()).status,
              NTE_USER_CANCELLED);
}

TEST_F(Pin, IsNotInTheLog)
{
    const OpenedKey key = open(rsa2048);
    ASSERT_EQ(key.sign(Padding::pkcs1(sha256.cng), arbitraryBytes(sha256.size)).status,
              ERROR_SUCCESS);
    const std::wstring pin = tokenPin;
    const Bytes narrow(pin.begin(), pin.end());
    const auto* begin = reinterpret_cast<const unsigned char*>(tokenPin);
    const Bytes wide(begin, begin + pin.size() * sizeof(wchar_t));
    bool loggedIn = false;
    for (const LogLine& line : log()) {
        loggedIn = loggedIn || line.function == "NV::Pkcs11::C_Login";
        for (const std::string& form : {std::string(pin.begin(), pin.end()), hexEncode(narrow),
                                        hexEncode(wide), base64Encode(narrow)})
            EXPECT_EQ(line.raw.find(form), std::string::npos) << line.raw;
    }
    EXPECT_TRUE(loggedIn);
}

}  // namespace NV::test
