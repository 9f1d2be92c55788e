// The blobs of an import, and the DER of an RSA key.

#include "keystore/imported_blob.h"

#include <gtest/gtest.h>

#include "peer_key.h"

namespace NV {
namespace {

Bytes rsaBlob(const Bytes& fields, const Bytes& numbers)
{
    Bytes blob;
    for (const unsigned char field : fields)
        blob.insert(blob.end(), {field, 0, 0, 0});
    // The magic is "RSA1".
    const Bytes magic{'R', 'S', 'A', '1'};
    std::copy(magic.begin(), magic.end(), blob.begin());
    blob.insert(blob.end(), numbers.begin(), numbers.end());
    return blob;
}

Bytes bytesOf(std::span<const unsigned char> bytes)
{
    return {bytes.begin(), bytes.end()};
}

TEST(ImportedBlob, AnEcBlobOfEachCurveIsAccepted)
{
    for (const auto& [magic, size] :
         {std::pair{test::ecdhP256, 32U}, {test::ecdhP384, 48U}, {test::ecdhP521, 66U}}) {
        Bytes blob = test::peerBlob(magic, size);
        // What follows is not read.
        blob.push_back(0x99);
        const ImportedEccKey key = readImportedEccBlob(blob);
        EXPECT_EQ(BlobVerdict::accepted, key.verdict);
        EXPECT_EQ(size, key.curve->coordinateSize());
        EXPECT_EQ(Bytes(blob.begin() + 8, blob.end() - 1), bytesOf(key.coordinates));
    }
}

TEST(ImportedBlob, AShortEcBlobIsDamagedWhateverItsMagic)
{
    Bytes blob = test::peerBlob(0x12345678, 32);
    EXPECT_EQ(BlobVerdict::foreign, readImportedEccBlob(blob).verdict);
    blob.resize(7);
    EXPECT_EQ(BlobVerdict::damaged, readImportedEccBlob(blob).verdict);
    EXPECT_EQ(BlobVerdict::damaged, readImportedEccBlob({}).verdict);
}

TEST(ImportedBlob, TheNumbersOfAnRsaBlobHaveNoLeadingZeros)
{
    const Bytes blob = rsaBlob({0, 24, 2, 3, 0, 0}, {0, 3, 0, 0x7F, 0x01, 0xEE});
    const ImportedRsaKey key = readImportedRsaBlob(blob);
    EXPECT_EQ(BlobVerdict::accepted, key.verdict);
    EXPECT_EQ(Bytes{3}, key.numbers.exponent);
    EXPECT_EQ((Bytes{0x7F, 0x01}), key.numbers.modulus);
    EXPECT_EQ(15U, key.numbers.bits());
}

TEST(ImportedBlob, BitsOfAnRsaKeyAreThoseOfItsModulus)
{
    for (const auto& [first, bits] :
         {std::pair<unsigned char, uint32_t>{0x01, 9}, {0x40, 15}, {0x80, 16}, {0xFF, 16}})
        EXPECT_EQ(
            bits,
            readImportedRsaBlob(rsaBlob({0, 16, 1, 2, 0, 0}, {3, first, 0xAA})).numbers.bits());
}

TEST(ImportedBlob, AnRsaBlobThatContradictsItselfIsDamaged)
{
    const Bytes numbers{3, 0xC5, 0x11};
    EXPECT_EQ(BlobVerdict::accepted,
              readImportedRsaBlob(rsaBlob({0, 16, 1, 2, 0, 0}, numbers)).verdict);
    for (const Bytes& fields : {Bytes{0, 17, 1, 2, 0, 0},
                                {0, 8, 1, 2, 0, 0},
                                {0, 16, 2, 2, 0, 0},
                                {0, 16, 0, 2, 0, 0},
                                {0, 0, 1, 0, 0, 0}})
        EXPECT_EQ(BlobVerdict::damaged, readImportedRsaBlob(rsaBlob(fields, numbers)).verdict)
            << static_cast<int>(fields[1]);
    EXPECT_EQ(BlobVerdict::damaged,
              readImportedRsaBlob(rsaBlob({0, 16, 1, 2, 0, 0}, {3, 0, 0})).verdict);
    EXPECT_EQ(BlobVerdict::damaged, readImportedRsaBlob(Bytes(23, 0)).verdict);
    EXPECT_EQ(BlobVerdict::foreign, readImportedRsaBlob(Bytes(24, 0)).verdict);
}

TEST(ImportedBlob, DerHasAZeroBeforeAHighBit)
{
    EXPECT_EQ("3006020105020103", hexEncode(encodeRsaPublicKey({{5}, {3}})));
    EXPECT_EQ("3008020200800202"
              "0080",
              hexEncode(encodeRsaPublicKey({{0x80}, {0x80}})));
}

// 127, 128, 255 and 256 bytes: one to three bytes of length.
TEST(ImportedBlob, DerHasTheShortestLengths)
{
    const auto beginning = [](size_t modulusSize, size_t count) {
        return hexEncode(encodeRsaPublicKey({Bytes(modulusSize, 0x11), {3}})).substr(0, 2 * count);
    };
    EXPECT_EQ("308184"
              "027F"
              "11",
              beginning(127, 6));
    EXPECT_EQ("308186"
              "028180"
              "11",
              beginning(128, 7));
    EXPECT_EQ("30820105"
              "0281FF"
              "11",
              beginning(255, 8));
    EXPECT_EQ("30820107"
              "02820100"
              "11",
              beginning(256, 9));
}

}  // namespace
}  // namespace NV
