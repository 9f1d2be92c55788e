// JSON Web Signatures: names of algorithms, and the three parts.

#include <gtest/gtest.h>

#include <string>

#include "formats/jws.h"

namespace NV::test {

using tool::jwsAlgorithm;
using tool::jwsCompact;
using tool::jwsHashSize;
using tool::jwsSigningInput;

TEST(Jws, NamesOfAlgorithms)
{
    EXPECT_EQ(jwsAlgorithm(true, false, 32), "RS256");
    EXPECT_EQ(jwsAlgorithm(true, true, 48), "PS384");
    EXPECT_EQ(jwsAlgorithm(false, false, 64), "ES512");
}

TEST(Jws, TheCurveDecidesOnTheHash)
{
    EXPECT_EQ(jwsHashSize(256), 32U);
    EXPECT_EQ(jwsHashSize(384), 48U);
    EXPECT_EQ(jwsHashSize(521), 64U);
}

TEST(Jws, PartsAreBase64UrlWithoutPadding)
{
    // The payload gives both characters that differ from plain base64.
    const std::string input = jwsSigningInput("RS256", "01AB", {0xFB, 0xEF, 0xFF, 0x00});
    EXPECT_EQ(input, "eyJhbGciOiJSUzI1NiIsImtpZCI6IjAxQUIifQ.--__AA");
    EXPECT_EQ(jwsCompact(input, {0xFF}, false), "eyJhbGciOiJSUzI1NiIsImtpZCI6IjAxQUIifQ.--__AA._w");
    EXPECT_EQ(jwsCompact(input, {0xFF}, true), "eyJhbGciOiJSUzI1NiIsImtpZCI6IjAxQUIifQ.._w");
}

}  // namespace NV::test
