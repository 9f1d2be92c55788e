// The public key blobs that key objects build from the certificate's public key.

#include <cstring>

#include "key_fixture.h"

namespace NV::test {

namespace {

class BlobTest : public KeyTest {
protected:
    static uint32_t wordAt(const Bytes& blob, size_t offset)
    {
        uint32_t word = 0;
        if (offset + sizeof word <= blob.size())
            std::memcpy(&word, blob.data() + offset, sizeof word);
        return word;
    }

    // The INTEGER that begins an RSAPublicKey, without the sign byte.
    static Bytes modulusOf(const std::string& fixture, size_t length)
    {
        const Bytes der = certificateKey(fixture);
        const size_t header = length >= 256 ? 4 + 4 + 1 : 3 + 3 + 1;
        return {der.begin() + static_cast<std::ptrdiff_t>(header),
                der.begin() + static_cast<std::ptrdiff_t>(header + length)};
    }

    static Bytes slice(const Bytes& bytes, size_t begin, size_t length)
    {
        return {bytes.begin() + static_cast<std::ptrdiff_t>(begin),
                bytes.begin() + static_cast<std::ptrdiff_t>(begin + length)};
    }
};

}  // namespace

TEST_F(BlobTest, rsaBlobIsHeaderExponentAndBigEndianModulus)
{
    const Bytes blob = rsa->getPubkeyBlob();
    ASSERT_EQ(27U + 256, blob.size());
    EXPECT_EQ(0x31415352U, wordAt(blob, 0));
    EXPECT_EQ(2048U, wordAt(blob, 4));
    EXPECT_EQ(3U, wordAt(blob, 8));
    EXPECT_EQ(256U, wordAt(blob, 12));
    EXPECT_EQ(0U, wordAt(blob, 16));
    EXPECT_EQ(0U, wordAt(blob, 20));
    EXPECT_EQ((Bytes{1, 0, 1}), slice(blob, 24, 3));
    EXPECT_EQ(modulusOf("rsa2048", 256), slice(blob, 27, 256));
}

TEST_F(BlobTest, rsaBlobOfExponent3StillSays65537)
{
    const Bytes blob = makeRsaKey(L"01AB", "rsa1024", 1024)->getPubkeyBlob();
    ASSERT_EQ(27U + 128, blob.size());
    EXPECT_EQ((Bytes{1, 0, 1}), slice(blob, 24, 3));
    EXPECT_EQ(1024U, wordAt(blob, 4));
    EXPECT_EQ(modulusOf("rsa1024", 128), slice(blob, 27, 128));
    const LogLines lines = log.takeLines();
    EXPECT_TRUE(hasLine(lines, "TRC NV::P11RSAKeyObject::getPubkeyBlob:dwExponent = 3"));
    EXPECT_TRUE(hasLine(lines, "TRC NV::P11RSAKeyObject::getPubkeyBlob:dwModulusSize = 128"));
}

TEST_F(BlobTest, rsaBlobIsTraced)
{
    const Bytes der = certificateKey("rsa2048");
    const Bytes blob = rsa->getPubkeyBlob();
    expectBlock(log.takeLines(),
                "TRC NV::P11RSAKeyObject::getPubkeyBlob:ENTER\n"
                "TRC NV::P11RSAKeyObject::getPubkeyBlob:RSA PublicKey = " +
                    hexEncode(der) +
                    " (270 bytes)\n"
                    "TRC NV::P11RSAKeyObject::getPubkeyBlob:dwModulusSize = 256\n"
                    "TRC NV::P11RSAKeyObject::getPubkeyBlob:dwExponent = 65537\n"
                    "TRC NV::P11RSAKeyObject::getPubkeyBlob:dwMagic = 31415352\n"
                    "TRC NV::P11RSAKeyObject::getPubkeyBlob:RSA PublicKey Blob = " +
                    hexEncode(blob) + "\nTRC NV::P11RSAKeyObject::getPubkeyBlob:LEAVE\n");
}

TEST_F(BlobTest, rsaBlobOfWhatIsNoRsaKeyIsEmpty)
{
    for (const char* text : {"", "AAECAw==", "MAA=", "////"}) {
        rsa->setPublicKey(text);
        EXPECT_TRUE(rsa->getPubkeyBlob().empty()) << text;
    }
}

TEST_F(BlobTest, rsaBlobOfACutDerIsEmpty)
{
    const Bytes der = certificateKey("rsa2048");
    for (const size_t length : {size_t{1}, size_t{4}, size_t{9}, der.size() - 1}) {
        rsa->setPublicKey(base64Encode(slice(der, 0, length)));
        EXPECT_TRUE(rsa->getPubkeyBlob().empty()) << length;
    }
}

struct EcRow {
    const char* fixture;
    uint32_t bits;
    uint32_t magic;
    uint32_t coordinate;
    size_t blobLength;
};

void PrintTo(const EcRow& row, std::ostream* out)
{
    *out << row.fixture;
}

class EcBlobTest : public BlobTest, public testing::WithParamInterface<EcRow> {};

TEST_P(EcBlobTest, isMagicCoordinateSizeAndBothCoordinates)
{
    const EcRow& row = GetParam();
    const Bytes point = certificateKey(row.fixture);
    const Bytes blob = makeEcKey(L"0256", row.fixture, row.bits)->getPubkeyBlob();
    ASSERT_EQ(row.blobLength, blob.size());
    EXPECT_EQ(row.magic, wordAt(blob, 0));
    EXPECT_EQ(row.coordinate, wordAt(blob, 4));
    EXPECT_EQ(slice(point, 1, 2 * size_t{row.coordinate}),
              slice(blob, 8, 2 * size_t{row.coordinate}));
}

TEST_P(EcBlobTest, pointIsSplitIntoXAndY)
{
    const EcRow& row = GetParam();
    const Bytes point = certificateKey(row.fixture);
    const auto key = makeEcKey(L"0256", row.fixture, row.bits);
    const P11ECKeyObject::ECPoint split = key->getPointFromPublicKey(point);
    EXPECT_EQ(slice(point, 1, row.coordinate), split.x);
    EXPECT_EQ(slice(point, 1 + size_t{row.coordinate}, row.coordinate), split.y);
}

INSTANTIATE_TEST_SUITE_P(Curves, EcBlobTest,
                         testing::Values(EcRow{"p256", 256, 0x31534345, 32, 72},
                                         EcRow{"p384", 384, 0x33534345, 48, 104},
                                         EcRow{"p521", 521, 0x35534345, 66, 140}),
                         [](const auto& row) { return std::string(row.param.fixture); });

TEST_F(BlobTest, ecBlobIsTraced)
{
    const Bytes point = certificateKey("p256");
    const std::string hex = hexEncode(point);
    const std::string coordinates = hex.substr(2);
    const Bytes blob = ec->getPubkeyBlob();
    const std::string get = "TRC NV::P11ECKeyObject::getPubkeyBlob:";
    const std::string split = "TRC NV::P11ECKeyObject::getPointFromPublicKey:";
    const std::string toBlob = "TRC NV::P11ECKeyObject::ECPoint::toBlob:";
    expectBlock(log.takeLines(),
                get + "ENTER\n" + get + "EC PublicKey = " + hex + "(65 bytes)\n" +            //
                    split + "ENTER\n" +                                                       //
                    split + "x = " + coordinates.substr(0, 64) + "(32 bytes)\n" +             //
                    split + "y = " + coordinates.substr(64) + "(32 bytes)\n" +                //
                    split + "LEAVE\n" +                                                       //
                    toBlob + "ENTER\n" + toBlob + "blob = " + coordinates + "(64 bytes)\n" +  //
                    toBlob + "LEAVE\n" +                                                      //
                    get + "EC PublicKey Blob = " + "4543533120000000" + coordinates +         //
                    "(72 bytes)\n" + get + "LEAVE\n");
    EXPECT_EQ("4543533120000000" + coordinates, hexEncode(blob));
}

TEST_F(BlobTest, ecBlobOfACompressedPointIsTheHeaderAlone)
{
    Bytes point = certificateKey("p256");
    for (const unsigned first : {0x00U, 0x02U, 0x03U, 0x05U}) {
        point[0] = static_cast<unsigned char>(first);
        ec->setPublicKey(base64Encode(point));
        EXPECT_EQ("4543533120000000", hexEncode(ec->getPubkeyBlob()));
    }
}

TEST_F(BlobTest, ecBlobOfAnEmptyPointIsTheHeaderAlone)
{
    ec->setPublicKey("");
    EXPECT_EQ("4543533120000000", hexEncode(ec->getPubkeyBlob()));
}

TEST_F(BlobTest, ecBlobOfAShortPointIsTheHeaderAlone)
{
    ec->setPublicKey(base64Encode(slice(certificateKey("p256"), 0, 64)));
    EXPECT_EQ("4543533120000000", hexEncode(ec->getPubkeyBlob()));
}

TEST_F(BlobTest, ecBlobOfAnotherLengthIsEmpty)
{
    for (const uint32_t bits : {0U, 192U, 255U, 257U, 512U, 520U}) {
        ec->setKeyLength(bits);
        EXPECT_TRUE(ec->getPubkeyBlob().empty()) << bits;
        const P11ECKeyObject::ECPoint point =
            static_cast<P11ECKeyObject&>(*ec).getPointFromPublicKey(certificateKey("p256"));
        EXPECT_TRUE(point.x.empty() && point.y.empty()) << bits;
    }
}

}  // namespace NV::test
