// Elements of DER against encodings from X.690 and RFC 5280.

#include <gtest/gtest.h>

#include <string>

#include "formats/der.h"
#include "joined.h"

namespace NV::test {

using namespace tool;

namespace {

SYSTEMTIME timeOf(WORD year)
{
    return {year, 3, 0, 9, 23, 5, 7, 0};
}

}  // namespace

TEST(Der, LengthsAreInTheShortestForm)
{
    EXPECT_EQ(hexEncode(derOctets({})), "0400");
    EXPECT_EQ(derOctets(Bytes(127, 1)), joined({{0x04, 0x7F}, Bytes(127, 1)}));
    EXPECT_EQ(derOctets(Bytes(128, 1)), joined({{0x04, 0x81, 0x80}, Bytes(128, 1)}));
    EXPECT_EQ(derOctets(Bytes(255, 1)), joined({{0x04, 0x81, 0xFF}, Bytes(255, 1)}));
    EXPECT_EQ(derOctets(Bytes(256, 1)), joined({{0x04, 0x82, 0x01, 0x00}, Bytes(256, 1)}));
    EXPECT_EQ(derOctets(Bytes(65536, 1)),
              joined({{0x04, 0x83, 0x01, 0x00, 0x00}, Bytes(65536, 1)}));
}

TEST(Der, IntegersAreNotNegativeAndHaveNoNeedlessZero)
{
    EXPECT_EQ(hexEncode(derInteger(0U)), "020100");
    EXPECT_EQ(hexEncode(derInteger(127U)), "02017F");
    EXPECT_EQ(hexEncode(derInteger(128U)), "02020080");
    EXPECT_EQ(hexEncode(derInteger(65536U)), "0203010000");
    EXPECT_EQ(hexEncode(derInteger(Bytes{0, 0, 0x80})), "02020080");
    EXPECT_EQ(hexEncode(derInteger(Bytes{})), "020100");
}

TEST(Der, ObjectIdentifiers)
{
    EXPECT_EQ(hexEncode(derOid("1.2.840.113549.1.7.2")), "06092A864886F70D010702");
    EXPECT_EQ(hexEncode(derOid("2.16.840.1.101.3.4.2.1")), "0609608648016503040201");
    EXPECT_EQ(hexEncode(derOid("1.3.14.3.2.26")), "06052B0E03021A");
}

TEST(Der, ASetIsInTheOrderOfItsEncodings)
{
    EXPECT_EQ(hexEncode(derSet({derInteger(2U), derNull(), derInteger(1U)})),
              "31080201010201020500");
    EXPECT_EQ(hexEncode(derSequence({derInteger(2U), derInteger(1U)})), "3006020102020101");
    EXPECT_EQ(hexEncode(derContext(2, derInteger(5U))), "A203020105");
}

TEST(Der, TimesHaveTwoDigitsOfTheYearUpTo2049)
{
    const auto text = [](WORD year) {
        const Bytes element = derTime(timeOf(year));
        return std::string(element.begin() + 2, element.end());
    };
    EXPECT_EQ(derTime(timeOf(2049)).front(), 0x17);
    EXPECT_EQ(text(2049), "490309230507Z");
    EXPECT_EQ(derTime(timeOf(2050)).front(), 0x18);
    EXPECT_EQ(text(2050), "20500309230507Z");
}

}  // namespace NV::test
