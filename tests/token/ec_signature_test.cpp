// ECDSA with keys on the token: OpenSSL verifies the provider's signatures, and the provider those
// of OpenSSL.

#include "ecdsa_der.h"
#include "token_test.h"

namespace NV::test {

namespace {

class EcSignature : public TokenTest, public testing::WithParamInterface<TokenKey> {};

INSTANTIATE_TEST_SUITE_P(Token, EcSignature, testing::ValuesIn(ecKeys), keyOf);

// Shorter than every curve, and the lengths of the four hashes, which are longer than the smaller
// curves. OpenSSL's tool accepts no more.
constexpr DWORD hashSizes[] = {1, 20, 32, 48, 64};
constexpr DWORD longestHash = 64;

}  // namespace

TEST_P(EcSignature, VerifiesInOpenSslForEveryLengthOfHash)
{
    const OpenedKey key = open(GetParam());
    for (const DWORD size : hashSizes) {
        SCOPED_TRACE(size);
        const Bytes hash = arbitraryBytes(size);
        const Outcome signature = key.sign(Padding::none(), hash);
        ASSERT_EQ(signature.status, ERROR_SUCCESS);
        ASSERT_EQ(signature.bytes.size(), 2 * GetParam().bytes());
        EXPECT_TRUE(openSsl().verifies(GetParam(), hash, derFromRaw(signature.bytes)));
        EXPECT_FALSE(openSsl().verifies(GetParam(), changed(hash), derFromRaw(signature.bytes)));
        EXPECT_EQ(key.verify(Padding::none(), hash, signature.bytes), ERROR_SUCCESS);
    }
}

TEST_P(EcSignature, ProviderVerifiesOpenSslsAndRefusesAChangedOne)
{
    const OpenedKey key = open(GetParam());
    const size_t coordinate = GetParam().bytes();
    for (const DWORD size : hashSizes) {
        SCOPED_TRACE(size);
        const Bytes hash = arbitraryBytes(size, 2);
        const Bytes signature = rawFromDer(openSsl().sign(GetParam(), hash), coordinate);
        EXPECT_EQ(key.verify(Padding::none(), hash, signature), ERROR_SUCCESS);
        EXPECT_EQ(key.verify(Padding::none(), changed(hash), signature), NTE_INTERNAL_ERROR);
        for (const size_t position : {coordinate - 1, 2 * coordinate - 1})
            EXPECT_EQ(key.verify(Padding::none(), hash, changed(signature, position)),
                      NTE_INTERNAL_ERROR);
    }
}

// Bits of the hash beyond the curve's order are ignored (FIPS 186-4, 6.4).
TEST_P(EcSignature, HashIsCutToTheOrder)
{
    const OpenedKey key = open(GetParam());
    const Bytes hash = arbitraryBytes(100);
    const Outcome signature = key.sign(Padding::none(), hash);
    ASSERT_EQ(signature.status, ERROR_SUCCESS);
    if (GetParam().bytes() <= longestHash) {
        const Bytes seenByOpenSsl(hash.begin(), hash.begin() + longestHash);
        EXPECT_TRUE(openSsl().verifies(GetParam(), seenByOpenSsl, derFromRaw(signature.bytes)));
    }
    const size_t last = GetParam().bytes() - 1;
    EXPECT_EQ(key.verify(Padding::none(), changed(hash, last + 1), signature.bytes), ERROR_SUCCESS);
    EXPECT_EQ(key.verify(Padding::none(), changed(hash, last - 1), signature.bytes),
              NTE_INTERNAL_ERROR);
}

// Half of P-521's numbers begin with a zero byte, which must not be lost.
TEST_P(EcSignature, EachSignatureIsNewAndOfFullLength)
{
    const OpenedKey key = open(GetParam());
    const Bytes hash = arbitraryBytes(sha256.size);
    Bytes previous;
    for (int i = 0; i < 8; ++i) {
        const Outcome signature = key.sign(Padding::none(), hash);
        ASSERT_EQ(signature.status, ERROR_SUCCESS);
        EXPECT_EQ(signature.bytes.size(), 2 * GetParam().bytes());
        EXPECT_NE(signature.bytes, previous);
        EXPECT_EQ(key.verify(Padding::none(), hash, signature.bytes), ERROR_SUCCESS);
        previous = signature.bytes;
    }
}

TEST_P(EcSignature, SignatureThatIsNoneDoesNotVerify)
{
    const OpenedKey key = open(GetParam());
    const Bytes hash = arbitraryBytes(sha256.size);
    const size_t size = 2 * size_t{GetParam().bytes()};
    const Bytes good = rawFromDer(openSsl().sign(GetParam(), hash), GetParam().bytes());
    Bytes longer = good;
    longer.push_back(0);
    const Bytes shorter(good.begin(), good.end() - 1);
    for (const Bytes& signature :
         {longer, shorter, Bytes(size, 0), Bytes(size, 0xFF), Bytes{0}, derFromRaw(good)})
        EXPECT_EQ(key.verify(Padding::none(), hash, signature), NTE_INTERNAL_ERROR)
            << signature.size() << " bytes";
    EXPECT_EQ(key.verify(Padding::none(), hash, good), ERROR_SUCCESS);
}

TEST_P(EcSignature, BufferThatIsTooSmallFails)
{
    const OpenedKey key = open(GetParam());
    const Outcome outcome =
        key.signInto(2 * GetParam().bytes() - 1, Padding::none(), arbitraryBytes(sha256.size),
                     DialogDriver::entering(tokenPin));
    EXPECT_EQ(outcome.status, NTE_INTERNAL_ERROR);
    EXPECT_EQ(outcome.bytes, Bytes{});
}

TEST_P(EcSignature, WrongPinFailsAndTheNextCallAsksAgain)
{
    const OpenedKey key = open(GetParam());
    const Bytes hash = arbitraryBytes(sha256.size);
    const Outcome wrong = key.sign(Padding::none(), hash, DialogDriver::entering(L"wrong-pin"));
    EXPECT_EQ(wrong.status, NTE_INTERNAL_ERROR);
    EXPECT_EQ(wrong.bytes, Bytes{});
    EXPECT_EQ(key.sign(Padding::none(), hash).status, ERROR_SUCCESS);
}

TEST_P(EcSignature, KeyDoesNotEncrypt)
{
    const OpenedKey key = open(GetParam());
    EXPECT_EQ(key.encrypt(Padding::raw(), arbitraryBytes(16)).status, NTE_NOT_SUPPORTED);
    EXPECT_EQ(key.decrypt(Padding::raw(), arbitraryBytes(64), 64).status, NTE_NOT_SUPPORTED);
}

}  // namespace NV::test
