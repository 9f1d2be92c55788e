// The rows of the table of curves.

#include "base/curve.h"

#include <gtest/gtest.h>

namespace NV {

namespace {

TEST(Curve, IsFoundByItsObjectIdentifier)
{
    ASSERT_NE(nullptr, findNamedCurve("1.3.132.0.35"));
    EXPECT_EQ(521U, findNamedCurve("1.3.132.0.35")->keyLength);
    EXPECT_EQ(512U, findNamedCurve("1.3.36.3.3.2.8.1.1.13")->keyLength);
    for (const char* other : {"", "1.3.132.0", "1.3.132.0.350"})
        EXPECT_EQ(nullptr, findNamedCurve(other)) << other;
}

TEST(Curve, OnlyThoseOfCngAreFoundByALength)
{
    EXPECT_EQ("1.2.840.10045.3.1.7", findCngCurve(&Curve::keyLength, 256)->oid);
    EXPECT_EQ("1.3.132.0.34", findCngCurve(&Curve::keyLength, 384)->oid);
    EXPECT_EQ("1.3.132.0.35", findCngCurve(&Curve::keyLength, 521)->oid);
    for (const uint32_t other : {0U, 192U, 224U, 512U})
        EXPECT_EQ(nullptr, findCngCurve(&Curve::keyLength, other)) << other;
    EXPECT_EQ(nullptr, findCngCurve(&Curve::ecdsaMagic, 0));
    EXPECT_EQ(nullptr, findCngCurve(&Curve::ecdhMagic, 0));
}

TEST(Curve, OnlyThoseOfCngAreFoundByAnIdentifierOfThese)
{
    EXPECT_STREQ(L"nistP256", findCngCurve(&Curve::oid, "1.2.840.10045.3.1.7")->cngName);
    EXPECT_STREQ(L"nistP384", findCngCurve(&Curve::oid, "1.3.132.0.34")->cngName);
    EXPECT_STREQ(L"nistP521", findCngCurve(&Curve::oid, "1.3.132.0.35")->cngName);
    for (const char* other : {"", "1.3.132.0.10", "1.3.36.3.3.2.8.1.1.7", "1.2.840.10045.3.1.1"})
        EXPECT_EQ(nullptr, findCngCurve(&Curve::oid, other)) << other;
}

TEST(Curve, ALengthIsToldByTheSizeOfCoordinates)
{
    EXPECT_EQ(256U, keyLengthByCoordinates(32));
    EXPECT_EQ(320U, keyLengthByCoordinates(40));
    EXPECT_EQ(384U, keyLengthByCoordinates(48));
    EXPECT_EQ(512U, keyLengthByCoordinates(64));
    EXPECT_EQ(521U, keyLengthByCoordinates(66));
    EXPECT_EQ(0U, keyLengthByCoordinates(0));
}

TEST(Curve, CoordinatesAreWholeBytes)
{
    EXPECT_EQ(32U, findCngCurve(&Curve::keyLength, 256)->coordinateSize());
    EXPECT_EQ(48U, findCngCurve(&Curve::keyLength, 384)->coordinateSize());
    EXPECT_EQ(66U, findCngCurve(&Curve::keyLength, 521)->coordinateSize());
}

}  // namespace

}  // namespace NV
