// ECDSA signatures as DER and as r and s.

#include <gtest/gtest.h>

#include <string>

#include "failure.h"
#include "formats/ecdsa_signature.h"
#include "joined.h"

namespace NV::test {

using tool::ecdsaFromDer;
using tool::ecdsaToDer;
using tool::Failure;

namespace {

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

// A number of that many bytes, which ends with the given ones.
Bytes number(size_t size, const Bytes& end)
{
    Bytes bytes(size - end.size());
    bytes.insert(bytes.end(), end.begin(), end.end());
    return bytes;
}

struct BadDer {
    const char* name;
    Bytes der;
};

// Variants of the signature with r = 1 and s = 2, for coordinates of 4 bytes.
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

// r and s of P-521 with two bytes of header each: 2 * 66 + 4 bytes, too long for one length byte.
TEST(EcdsaSignature, LongestOfP521HasALongLength)
{
    Bytes half(66, 0xEE);
    half.front() = 0x01;
    const Bytes raw = joined({half, half});
    const Bytes der = joined({{0x30, 0x81, 136}, integer(half), integer(half)});
    EXPECT_EQ(ecdsaToDer(raw), der);
    EXPECT_EQ(ecdsaFromDer(der, 66), raw);
}

// Up to 127 bytes of content have the short form, from 128 bytes on the long one.
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

}  // namespace NV::test
