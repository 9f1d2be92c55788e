// Public keys as bytes from outside: whole ones, and ones that say more than they hold.

#include "keystore/keystore_blob.h"

#include <gtest/gtest.h>

namespace NV {

namespace {

Bytes joined(std::initializer_list<std::string_view> hexadecimal)
{
    Bytes bytes;
    for (const std::string_view text : hexadecimal) {
        const Bytes piece = hexDecode(text);
        bytes.insert(bytes.end(), piece.begin(), piece.end());
    }
    return bytes;
}

std::string hexOf(std::span<const unsigned char> bytes)
{
    return hexEncode(bytes.data(), static_cast<int32_t>(bytes.size()));
}

TEST(EccBlob, TheMagicNamesTheCurve)
{
    EXPECT_EQ(256U, readEccBlob(hexDecode("45434B31")).curve->keyLength);
    EXPECT_EQ(384U, readEccBlob(hexDecode("45434B33")).curve->keyLength);
    EXPECT_EQ(521U, readEccBlob(hexDecode("45434B35")).curve->keyLength);
    for (const char* other : {"45435331", "52534131", "45434B32", "00000000", "45434B", ""})
        EXPECT_EQ(nullptr, readEccBlob(hexDecode(other)).curve) << other;
}

TEST(EccBlob, CoordinatesAreAsLongAsTheHeadSays)
{
    const Bytes blob = joined({"45434B31", "02000000", "A1A2", "B1B2", "C1"});
    const EccBlob key = readEccBlob(blob);
    EXPECT_EQ(2U, key.coordinateSize);
    ASSERT_TRUE(key.coordinates);
    EXPECT_EQ("A1A2B1B2", hexOf(*key.coordinates));
    EXPECT_EQ(blob.data() + 8, key.coordinates->data());
}

TEST(EccBlob, ABlobWithoutCoordinatesIsWhole)
{
    const Bytes blob = joined({"45434B31", "00000000"});
    const EccBlob key = readEccBlob(blob);
    ASSERT_TRUE(key.coordinates);
    EXPECT_TRUE(key.coordinates->empty());
}

TEST(EccBlob, ABlobShorterThanItsHeadSaysHasNoCoordinates)
{
    const Bytes whole = joined({"45434B31", "02000000", "A1A2", "B1B2"});
    for (size_t size = 0; size < whole.size(); ++size)
        EXPECT_FALSE(readEccBlob(std::span(whole).first(size)).coordinates) << size;
    for (const char* size : {"03000000", "FFFFFF7F", "00000080", "FFFFFFFF"})
        EXPECT_FALSE(readEccBlob(joined({"45434B31", size, "A1A2", "B1B2"})).coordinates) << size;
}

TEST(EccBlob, WhatIsMissingOfTheHeadCountsAsZero)
{
    EXPECT_EQ(0x20U, readEccBlob(joined({"45434B31", "20"})).coordinateSize);
    EXPECT_EQ(0x443322U, readEccBlob(joined({"45434B31", "223344"})).coordinateSize);
}

TEST(Point, IsSplitAndJoined)
{
    const Bytes point = hexDecode("04A1A2B1B2");
    const PointCoordinates split = splitPoint(point, 2);
    EXPECT_EQ("A1A2", hexOf(split.x));
    EXPECT_EQ("B1B2", hexOf(split.y));
    EXPECT_EQ(point, uncompressedPoint(hexDecode("A1A2B1B2")));
    EXPECT_EQ(hexDecode("04"), uncompressedPoint({}));
}

TEST(Point, WhatIsLongerGivesTheSameCoordinates)
{
    const PointCoordinates split = splitPoint(hexDecode("04A1A2B1B2C1C2"), 2);
    EXPECT_EQ("A1A2", hexOf(split.x));
    EXPECT_EQ("B1B2", hexOf(split.y));
}

TEST(Point, IsEmptyWhenCompressedOrCutShort)
{
    for (const char* text : {"", "04", "04A1A2B1", "02A1A2B1B2", "00A1A2B1B2"}) {
        const PointCoordinates split = splitPoint(hexDecode(text), 2);
        EXPECT_TRUE(split.x.empty() && split.y.empty()) << text;
    }
}

TEST(RsaBlob, IsHeadExponentAndReversedModulus)
{
    const Bytes legacy =
        joined({"0602000000A40000", "52534131", "40000000", "03000000", "0102030405060708", "FF"});
    const auto head = readLegacyRsaHead(legacy);
    ASSERT_TRUE(head);
    EXPECT_EQ(0x31415352U, head->magic);
    EXPECT_EQ(64U, head->bitLength);
    EXPECT_EQ(3U, head->exponent);
    EXPECT_EQ(8U, head->modulusSize());
    EXPECT_EQ(joined({"52534131", "40000000", "03000000", "08000000", "00000000", "00000000",
                      "010001", "0807060504030201"}),
              rsaPublicKeyBlob(*head, legacy));
}

TEST(RsaBlob, IsEmptyWhenTheModulusIsCutShort)
{
    for (const char* bits : {"48000000", "FFFFFFFF"}) {
        const Bytes legacy =
            joined({"0602000000A40000", "52534131", bits, "03000000", "0102030405060708"});
        EXPECT_TRUE(rsaPublicKeyBlob(readLegacyRsaHead(legacy).value(), legacy).empty()) << bits;
    }
}

TEST(RsaNumbers, AreReadWithoutLeadingZeros)
{
    const auto numbers = readRsaBlob(joined({"52534131", "00000000", "03000000", "04000000",
                                             "0000000000000000", "000003", "00008001", "FF"}));
    ASSERT_TRUE(numbers);
    EXPECT_EQ("03", hexOf(numbers->exponent));
    EXPECT_EQ("8001", hexOf(numbers->modulus));
}

TEST(RsaNumbers, HaveTheModulusTrueLength)
{
    EXPECT_EQ(0U, (RsaNumbers{}.bits()));
    EXPECT_EQ(1U, (RsaNumbers{hexDecode("01"), {}}.bits()));
    EXPECT_EQ(8U, (RsaNumbers{hexDecode("80"), {}}.bits()));
    EXPECT_EQ(9U, (RsaNumbers{hexDecode("01FF"), {}}.bits()));
    EXPECT_EQ(23U, (RsaNumbers{hexDecode("400000"), {}}.bits()));
}

TEST(RsaNumbers, AreNoneInAnotherOrAShorterBlob)
{
    const Bytes whole =
        joined({"52534131", "10000000", "01000000", "02000000", "0000000000000000", "03", "8001"});
    ASSERT_TRUE(readRsaBlob(whole));
    for (size_t size = 0; size < whole.size(); ++size)
        EXPECT_FALSE(readRsaBlob(std::span(whole).first(size))) << size;
    for (const char* magic : {"52534132", "31415352", "45434B31", "00000000"}) {
        Bytes other = hexDecode(magic);
        other.insert(other.end(), whole.begin() + 4, whole.end());
        EXPECT_FALSE(readRsaBlob(other)) << magic;
    }
}

TEST(RsaNumbers, AreNoneWithSizesThatOverflow)
{
    for (const auto& [exponent, modulus] :
         {std::pair{"FFFFFFFF", "02000000"}, std::pair{"01000000", "FFFFFFFF"},
          std::pair{"FFFFFFFF", "FFFFFFFF"}, std::pair{"FFFFFFFF", "04000000"},
          std::pair{"02000000", "02000000"}})
        EXPECT_FALSE(readRsaBlob(
            joined({"52534131", "10000000", exponent, modulus, "0000000000000000", "03", "8001"})))
            << exponent << modulus;
}

TEST(RsaNumbers, AreNoneIfOneIsZero)
{
    for (const auto& [exponent, modulus] : {std::pair{"00", "8001"}, std::pair{"03", "0000"}})
        EXPECT_FALSE(readRsaBlob(joined({"52534131", "10000000", "01000000", "02000000",
                                         "0000000000000000", exponent, modulus})));
    EXPECT_FALSE(readRsaBlob(
        joined({"52534131", "10000000", "00000000", "02000000", "0000000000000000", "8001"})));
    EXPECT_FALSE(readRsaBlob(
        joined({"52534131", "10000000", "01000000", "00000000", "0000000000000000", "03"})));
}

TEST(RsaNumbers, AreWrittenWithTheirOwnLengths)
{
    EXPECT_EQ("52534131"
              "0F000000"
              "05000000"
              "02000000"
              "0000000000000000"
              "0100000001"
              "4001",
              hexOf(rsaBlob({hexDecode("4001"), hexDecode("0100000001")})));
}

TEST(RsaNumbers, AreWrittenForCryptoApiWithALengthOfWholeBytes)
{
    EXPECT_EQ("0602000000A40000"
              "52534131"
              "10000000"
              "03000000"
              "0140",
              hexOf(legacyRsaBlob({hexDecode("4001"), hexDecode("03")})));
    EXPECT_EQ("0602000000A40000"
              "52534131"
              "08000000"
              "010000F0"
              "81",
              hexOf(legacyRsaBlob({hexDecode("81"), hexDecode("F0000001")})));
}

TEST(RsaNumbers, CryptoApiHasNoRoomForAnExponentOfMoreThan32Bits)
{
    EXPECT_TRUE(legacyRsaBlob({hexDecode("81"), hexDecode("0100000001")}).empty());
}

TEST(RsaBlob, ThereIsNoneWithoutAWholeHead)
{
    const Bytes head = joined({"0602000000A40000", "52534131", "40000000", "03000000"});
    EXPECT_TRUE(readLegacyRsaHead(head));
    for (size_t size = 0; size < head.size(); ++size)
        EXPECT_FALSE(readLegacyRsaHead(std::span(head).first(size))) << size;
}

}  // namespace

}  // namespace NV
