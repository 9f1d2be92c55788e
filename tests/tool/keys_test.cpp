// The forms that keywarden's key commands read and write: ECDSA signatures as DER, public keys as PEM
// and DER, hashes of files.

#include <CLI/Error.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "failure.h"
#include "folder.h"
#include "formats/ecdsa_signature.h"
#include "formats/hashing.h"
#include "formats/public_key.h"
#include "output.h"

namespace NV::test {

using tool::digestInfo;
using tool::ecdhBlob;
using tool::ecdsaFromDer;
using tool::ecdsaToDer;
using tool::Failure;
using tool::hashFile;
using tool::hashNamed;
using tool::hashSize;
using tool::publicKeyFromFile;
using tool::toPem;

namespace {

Bytes joined(std::initializer_list<Bytes> pieces)
{
    Bytes whole;
    for (const Bytes& piece : pieces)
        whole.insert(whole.end(), piece.begin(), piece.end());
    return whole;
}

Bytes element(unsigned char tag, const Bytes& content)
{
    return joined({{tag, static_cast<unsigned char>(content.size())}, content});
}

Bytes integer(const Bytes& content)
{
    return element(0x02, content);
}

Bytes signature(const Bytes& r, const Bytes& s)
{
    return element(0x30, joined({integer(r), integer(s)}));
}

// Of so many bytes, with these as the last ones.
Bytes number(size_t size, const Bytes& end)
{
    Bytes bytes(size - end.size());
    bytes.insert(bytes.end(), end.begin(), end.end());
    return bytes;
}

Bytes bytesOf(const std::string& text)
{
    return {text.begin(), text.end()};
}

struct BadDer {
    const char* name;
    Bytes der;
};

// Made of 01 as r and 02 as s, with coordinates of 4 bytes.
const BadDer badSignatures[] = {
    {"Empty", {}},
    {"TagAlone", {0x30}},
    {"LengthAlone", {0x30, 0x81}},
    {"AnotherTag", {0x31, 6, 2, 1, 1, 2, 1, 2}},
    {"AnotherTagInside", {0x30, 6, 3, 1, 1, 2, 1, 2}},
    {"JunkBehind", {0x30, 6, 2, 1, 1, 2, 1, 2, 0}},
    {"JunkInside", {0x30, 7, 2, 1, 1, 2, 1, 2, 0}},
    {"ThirdNumber", {0x30, 9, 2, 1, 1, 2, 1, 2, 2, 1, 3}},
    {"OneNumber", {0x30, 3, 2, 1, 1}},
    {"NoNumber", {0x30, 0}},
    {"CutOff", {0x30, 6, 2, 1, 1, 2, 1}},
    {"NumberLongerThanSequence", {0x30, 6, 2, 1, 1, 2, 2, 2}},
    {"EmptyNumber", {0x30, 5, 2, 0, 2, 1, 2}},
    {"Negative", {0x30, 6, 2, 1, 0x80, 2, 1, 2}},
    {"NegativeSecond", {0x30, 6, 2, 1, 1, 2, 1, 0xFF}},
    {"NeedlessZero", {0x30, 7, 2, 2, 0, 1, 2, 1, 2}},
    {"TooLongNumber", {0x30, 10, 2, 5, 1, 2, 3, 4, 5, 2, 1, 2}},
    {"TooLongWithZero", {0x30, 11, 2, 6, 0, 0x81, 2, 3, 4, 5, 2, 1, 2}},
    {"NeedlessLongLength", {0x30, 0x81, 6, 2, 1, 1, 2, 1, 2}},
    {"NeedlessLongLengthInside", {0x30, 7, 2, 0x81, 1, 1, 2, 1, 2}},
    {"TwoLengthBytes", {0x30, 0x82, 0, 6, 2, 1, 1, 2, 1, 2}},
    {"IndefiniteLength", {0x30, 0x80, 2, 1, 1, 2, 1, 2, 0, 0}},
};

std::string nameOf(const testing::TestParamInfo<BadDer>& info)
{
    return info.param.name;
}

class BadSignature : public testing::TestWithParam<BadDer> {};

INSTANTIATE_TEST_SUITE_P(Der, BadSignature, testing::ValuesIn(badSignatures), nameOf);

// A P-256 key of OpenSSL's, as `openssl pkey -pubout` wrote it.
constexpr char p256Pem[] = "-----BEGIN PUBLIC KEY-----\n"
                           "MFkwEwYHKoZIzj0CAQYIKoZIzj0DAQcDQgAEkpZvpna+sTRO8z1AmZBkTfnDwpvk\n"
                           "658DSbQi7XMeXI/ynn9RNuRPMViZup+90YFCRrlcBwwNBUoDg3mFtMSWqg==\n"
                           "-----END PUBLIC KEY-----\n";
constexpr char p256Point[] = "92966FA676BEB1344EF33D409990644DF9C3C29BE4EB9F0349B422ED731E5C8F"
                             "F29E7F5136E44F315899BA9FBDD1814246B95C070C0D054A03837985B4C496AA";

// The SubjectPublicKeyInfo without its point.
constexpr char p256Header[] = "3059301306072A8648CE3D020106082A8648CE3D03010703420004";

Bytes hashOf(const std::string& name, const std::string& content)
{
    const TemporaryFolder folder;
    writeFile(folder.path() / "file", content);
    return hashFile(tool::Output(), folder.path() / "file", hashNamed(name));
}

}  // namespace

TEST_P(BadSignature, IsRefused)
{
    EXPECT_THROW(ecdsaFromDer(GetParam().der, 4), Failure);
}

TEST(EcdsaSignature, GoodOneOfTheBadOnesIsTaken)
{
    EXPECT_EQ(ecdsaFromDer({0x30, 6, 2, 1, 1, 2, 1, 2}, 4), (Bytes{0, 0, 0, 1, 0, 0, 0, 2}));
}

TEST(EcdsaSignature, LeadingZerosGoAndComeBack)
{
    const Bytes raw = joined({number(32, {1, 2}), number(32, {0x7F})});
    const Bytes der = signature({1, 2}, {0x7F});
    EXPECT_EQ(ecdsaToDer(raw), der);
    EXPECT_EQ(ecdsaFromDer(der, 32), raw);
}

TEST(EcdsaSignature, TopBitNeedsAZero)
{
    const Bytes r(32, 0xFF);
    const Bytes s = number(32, {0x80, 0});
    const Bytes der = signature(joined({{0}, r}), {0, 0x80, 0});
    EXPECT_EQ(ecdsaToDer(joined({r, s})), der);
    EXPECT_EQ(ecdsaFromDer(der, 32), joined({r, s}));
}

TEST(EcdsaSignature, ZeroIsOneByte)
{
    const Bytes der = signature({0}, {0});
    EXPECT_EQ(ecdsaToDer(Bytes(96)), der);
    EXPECT_EQ(ecdsaFromDer(der, 48), Bytes(96));
}

// r and s of P-521 with two bytes of header each: 2 * 66 + 4, more than one length byte can say.
TEST(EcdsaSignature, LongestOfP521HasALongLength)
{
    Bytes half(66, 0xEE);
    half.front() = 0x01;
    const Bytes raw = joined({half, half});
    const Bytes der = joined({{0x30, 0x81, 136}, integer(half), integer(half)});
    EXPECT_EQ(ecdsaToDer(raw), der);
    EXPECT_EQ(ecdsaFromDer(der, 66), raw);
}

// 127 bytes of content still have the short form, 128 the long one.
TEST(EcdsaSignature, LengthFormChangesAt128)
{
    for (const size_t first : {size_t{60}, size_t{61}}) {
        const Bytes raw =
            joined({Bytes(66 - first), Bytes(first, 0x11), Bytes(3), Bytes(63, 0x22)});
        const Bytes der = ecdsaToDer(raw);
        const size_t content = first + 63 + 4;
        EXPECT_EQ(der.size(), content + (content < 128 ? 2 : 3));
        EXPECT_EQ(der[1], content < 128 ? content : 0x81);
        EXPECT_EQ(ecdsaFromDer(der, 66), raw);
    }
}

TEST(PublicKey, PemIsReadAndWritten)
{
    const Bytes der = publicKeyFromFile(bytesOf(p256Pem));
    EXPECT_EQ(der, hexDecode(std::string(p256Header) + p256Point));
    EXPECT_EQ(toPem(der), p256Pem);
    EXPECT_EQ(publicKeyFromFile(der), der);
}

TEST(PublicKey, PemMayHaveTextAroundAndOtherLineEnds)
{
    std::string text = "Some words\n" + std::string(p256Pem) + "more\n";
    for (size_t i = 0; (i = text.find('\n', i)) != std::string::npos; i += 2)
        text.replace(i, 1, "\r\n");
    EXPECT_EQ(publicKeyFromFile(bytesOf(text)), publicKeyFromFile(bytesOf(p256Pem)));
}

TEST(PublicKey, PemWithoutItsEndIsRefused)
{
    const std::string text(p256Pem);
    EXPECT_THROW(publicKeyFromFile(bytesOf(text.substr(0, text.find("-----END")))), Failure);
}

TEST(PublicKey, PemWithForeignCharactersIsRefused)
{
    for (const char* junk : {"!", "-", "=A", "\x80"}) {
        std::string text(p256Pem);
        text.insert(text.find("END") - 20, junk);
        EXPECT_THROW(publicKeyFromFile(bytesOf(text)), Failure) << junk;
    }
}

TEST(PublicKey, EcdhBlobHoldsThePoint)
{
    const Bytes blob = ecdhBlob(publicKeyFromFile(bytesOf(p256Pem)));
    EXPECT_EQ(blob, joined({{'E', 'C', 'K', '1', 32, 0, 0, 0}, hexDecode(p256Point)}));
}

TEST(PublicKey, EcdhBlobOfAnythingElseIsRefused)
{
    const Bytes good = publicKeyFromFile(bytesOf(p256Pem));
    EXPECT_THROW(ecdhBlob({}), Failure);
    EXPECT_THROW(ecdhBlob({0x30, 0}), Failure);
    EXPECT_THROW(ecdhBlob(bytesOf("text")), Failure);
    EXPECT_THROW(ecdhBlob(Bytes(good.begin(), good.end() - 1)), Failure) << "cut off";
    EXPECT_THROW(ecdhBlob(joined({good, {0}})), Failure) << "junk behind";
    Bytes compressed = good;
    compressed[26] = 0x02;
    EXPECT_THROW(ecdhBlob(compressed), Failure);
    Bytes otherCurve = good;
    otherCurve[22] = 0x02;  // 1.2.840.10045.3.1.2
    EXPECT_THROW(ecdhBlob(otherCurve), Failure);
    Bytes otherAlgorithm = good;
    otherAlgorithm[12] = 0x02;
    EXPECT_THROW(ecdhBlob(otherAlgorithm), Failure);
}

TEST(Hashing, EmptyFile)
{
    EXPECT_EQ(hexEncode(hashOf("sha1", "")), "DA39A3EE5E6B4B0D3255BFEF95601890AFD80709");
    EXPECT_EQ(hexEncode(hashOf("sha256", "")),
              "E3B0C44298FC1C149AFBF4C8996FB92427AE41E4649B934CA495991B7852B855");
}

TEST(Hashing, KnownAnswers)
{
    EXPECT_EQ(hexEncode(hashOf("sha1", "abc")), "A9993E364706816ABA3E25717850C26C9CD0D89D");
    EXPECT_EQ(hexEncode(hashOf("SHA256", "abc")),
              "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD");
    EXPECT_EQ(hexEncode(hashOf("Sha384", "abc")),
              "CB00753F45A35E8BB5A03D699AC65007272C32AB0EDED1631A8B605A43FF5BED8086072BA1E7CC2358BA"
              "ECA134C825A7");
    EXPECT_EQ(hexEncode(hashOf("sha512", "abc")),
              "DDAF35A193617ABACC417349AE20413112E6FA4E89A97EA20A9EEEE64B55D39A2192992A274FC1A836BA"
              "3C23A3FEEBBD454D4423643CE80E2A9AC94FA54CA49F");
}

// More than one piece; a million times "a" is a known answer, and the rest crosses pieces anywhere.
TEST(Hashing, SeveralPieces)
{
    EXPECT_EQ(hexEncode(hashOf("sha256", std::string(1000000, 'a'))),
              "CDC76E5C9914FB9281A1C7E284D73E67F1809A48A497200E046D39CCC7112CD0");
    const size_t piece = size_t{1} << 20;
    for (const size_t size : {piece - 1, piece, piece + 1, 5 * piece, 5 * piece + 7}) {
        const std::string content(size, '\0');
        std::string changed = content;
        changed.back() = 1;
        EXPECT_NE(hashOf("sha256", content), hashOf("sha256", changed)) << size;
    }
    EXPECT_EQ(hexEncode(hashOf("sha256", std::string(5 * piece + 7, 'k'))),
              "444E83321D086854EF89A7EE616386110987812C6A5787EB426AE5A7D4ACB203");
}

TEST(Hashing, FileThatIsNotThereFails)
{
    const TemporaryFolder folder;
    EXPECT_THROW(hashFile(tool::Output(), folder.path() / "none", hashNamed("sha1")), Failure);
    EXPECT_THROW(hashFile(tool::Output(), folder.path(), hashNamed("sha1")), Failure);
}

TEST(Hashing, UnknownNameIsWrongUsage)
{
    for (const char* name : {"", "md5", "sha2", "sha-256", "sha256 ", "größe"}) {
        EXPECT_THROW(hashNamed(name), CLI::ValidationError) << name;
        EXPECT_NE(tool::checkHashName(name), "") << name;
    }
    EXPECT_EQ(tool::checkHashName("sHa512"), "");
}

TEST(Hashing, SizeAndDigestInfo)
{
    EXPECT_EQ(hashSize(hashNamed("sha1")), 20U);
    EXPECT_EQ(hashSize(hashNamed("sha256")), 32U);
    EXPECT_EQ(hashSize(hashNamed("sha384")), 48U);
    EXPECT_EQ(hashSize(hashNamed("sha512")), 64U);
    EXPECT_EQ(digestInfo(hashNamed("sha1"), Bytes(20, 0xAB)),
              joined({hexDecode("3021300906052B0E03021A05000414"), Bytes(20, 0xAB)}));
    EXPECT_EQ(digestInfo(hashNamed("sha512"), Bytes(64, 0xCD)),
              joined({hexDecode("3051300D060960864801650304020305000440"), Bytes(64, 0xCD)}));
}

}  // namespace NV::test
