// Verification by the system, with signatures that OpenSSL made of SHA-256("abc").

#include <gtest/gtest.h>

#include <windows.h>

#include <bcrypt.h>

#include <cstring>
#include <string_view>

#include "formats/hashing.h"
#include "joined.h"
#include "system/software_verification.h"

namespace NV::test {

using tool::hashNamed;
using tool::verifiesInSoftware;

namespace {

// x followed by y, r followed by s.
constexpr std::string_view point =
    "14C86059144921B27B0483242D19319AA81FD1E1253EF00CCC1A465FE06701E6"
    "DA5A8244735AA0B9C56A2D42A6FF1F169497A73BE9F407820B7B8A76504B8233";
constexpr std::string_view signature =
    "F0A89C431CFE1E0C3F55DBC070DDF28C6B52AEDA5425AABD12F0C5E42D8BD12C"
    "E443ED386183D8D80337B4EA7D5B527491181A02D0E9515CF5847744740F5741";
constexpr std::string_view digest =
    "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD";

tool::SignatureScheme scheme(const Bytes& key)
{
    const BCRYPT_ECCKEY_BLOB header{BCRYPT_ECDSA_PUBLIC_P256_MAGIC, 32};
    Bytes blob(sizeof header);
    std::memcpy(blob.data(), &header, sizeof header);
    return {joined({blob, key}), false, hashNamed("sha256"), {}};
}

TEST(SoftwareVerification, TellsGoodFromBad)
{
    const Bytes good = hexDecode(signature);
    EXPECT_EQ(verifiesInSoftware(scheme(hexDecode(point)), hexDecode(digest), good), true);
    Bytes bad = good;
    bad.back() ^= 1;
    EXPECT_EQ(verifiesInSoftware(scheme(hexDecode(point)), hexDecode(digest), bad), false);
    Bytes other = hexDecode(digest);
    other.front() ^= 1;
    EXPECT_EQ(verifiesInSoftware(scheme(hexDecode(point)), other, good), false);
}

TEST(SoftwareVerification, SaysNothingWhereTheKeyCannotBeRead)
{
    EXPECT_FALSE(verifiesInSoftware(scheme(Bytes(3)), hexDecode(digest), hexDecode(signature)));
}

}  // namespace

}  // namespace NV::test
