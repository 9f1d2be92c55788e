// Public keys as PEM, as DER and as CNG's blob.

#include <gtest/gtest.h>

#include <string>

#include "failure.h"
#include "formats/public_key.h"
#include "joined.h"

namespace NV::test {

using tool::ecdhBlob;
using tool::Failure;
using tool::publicKeyFromFile;
using tool::toPem;

namespace {

Bytes bytesOf(const std::string& text)
{
    return {text.begin(), text.end()};
}

// A P-256 key, written by `openssl pkey -pubout`.
constexpr char p256Pem[] = "-----BEGIN PUBLIC KEY-----\n"
                           "MFkwEwYHKoZIzj0CAQYIKoZIzj0DAQcDQgAEkpZvpna+sTRO8z1AmZBkTfnDwpvk\n"
                           "658DSbQi7XMeXI/ynn9RNuRPMViZup+90YFCRrlcBwwNBUoDg3mFtMSWqg==\n"
                           "-----END PUBLIC KEY-----\n";
constexpr char p256Point[] = "92966FA676BEB1344EF33D409990644DF9C3C29BE4EB9F0349B422ED731E5C8F"
                             "F29E7F5136E44F315899BA9FBDD1814246B95C070C0D054A03837985B4C496AA";

// The SubjectPublicKeyInfo without its point.
constexpr char p256Header[] = "3059301306072A8648CE3D020106082A8648CE3D03010703420004";

}  // namespace

TEST(PublicKey, PemIsReadAndWritten)
{
    const Bytes der = publicKeyFromFile(bytesOf(p256Pem));
    EXPECT_EQ(der, hexDecode(std::string(p256Header) + p256Point));
    EXPECT_EQ(toPem(der, "PUBLIC KEY"), p256Pem);
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

}  // namespace NV::test
