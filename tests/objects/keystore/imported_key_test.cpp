// The parser of imported public keys: what it takes, what it refuses and says, and that it reads
// nothing past the blob. And the life of an imported key in its store.

#include "guarded_bytes.h"
#include "secret_fixture.h"

namespace NV::test {

namespace {

constexpr std::string_view parser = "NV::KeyStore::addEphemeralKey";

class ImportedKeyTest : public testing::Test {
protected:
    // The blob lies at the end of readable memory.
    NCRYPT_KEY_HANDLE import(const Bytes& blob)
    {
        log.takeLines();
        const GuardedBytes guarded(blob);
        return store->addEphemeralKey(guarded.data(), guarded.size());
    }

    std::string lines() { return spoken(ofFunction(log.takeLines(), parser)); }

    static Bytes value(const P11KeyObject& key, const wchar_t* name)
    {
        const Property* property = key.findProperty(name);
        if (property == nullptr)
            return Bytes{untouchedByte};
        return {property->value().begin(), property->value().end()};
    }
    static Bytes text(const std::wstring& characters)
    {
        const auto* begin = reinterpret_cast<const unsigned char*>(characters.c_str());
        return {begin, begin + (characters.size() + 1) * sizeof(wchar_t)};
    }

    LogCapture log;
    std::unique_ptr<KeyStore> store = std::make_unique<KeyStore>();
};

struct CurveCase {
    const char* name;
    uint32_t magic;
    uint32_t coordinateSize;
    uint32_t keyLength;
    const wchar_t* algorithm;
};

void PrintTo(const CurveCase& row, std::ostream* out)
{
    *out << row.name;
}

constexpr CurveCase curveCases[] = {
    {"P256", ecdhP256, 32, 256, L"ECDSA_P256"},
    {"P384", ecdhP384, 48, 384, L"ECDSA_P384"},
    {"P521", ecdhP521, 66, 521, L"ECDSA_P521"},
};

class ImportedCurveTest : public ImportedKeyTest, public testing::WithParamInterface<CurveCase> {};

// The lines of a blob whose magic is refused.
constexpr const char* refused = R"(TRC ENTER
TRC ARG[0]:pbData=PTR
TRC 0) Parse Input BLOB to get keysize (in bytes)..
ERR Unsupported/Unknown MAGIC received..
TRC 1) Compute Public key (uncompressed format from X and Y points)..
TRC LEAVE
)";

}  // namespace

TEST_P(ImportedCurveTest, becomesAnUncompressedPoint)
{
    const CurveCase& row = GetParam();
    const auto handle = import(peerBlob(row.magic, row.coordinateSize));
    const P11KeyObject* key = store->findOpenedOrImported(handle);
    ASSERT_NE(nullptr, key);
    const Bytes point = base64Decode(key->publicKey());
    EXPECT_EQ(2 * row.coordinateSize + 1, point.size());
    EXPECT_EQ(hexEncode(peerPoint(row.coordinateSize)), hexEncode(point));
    EXPECT_EQ("ECDSA", key->algorithm());
    EXPECT_EQ(L"1.2.840.10045.2.1", key->algorithmOid());
    EXPECT_EQ(row.keyLength, key->keyLength());
    EXPECT_EQ(L"", key->keyId());
}

TEST_P(ImportedCurveTest, says)
{
    const CurveCase& row = GetParam();
    import(peerBlob(row.magic, row.coordinateSize));
    const Bytes point = peerPoint(row.coordinateSize);
    EXPECT_EQ("TRC ENTER\n"
              "TRC ARG[0]:pbData=PTR\n"
              "TRC 0) Parse Input BLOB to get keysize (in bytes)..\n"
              "DBG BCRYPT_ECDH_PUBLIC_" +
                  std::string(row.name) +
                  "_MAGIC recieved, length=" + std::to_string(row.coordinateSize) +
                  " bytes\n"
                  "TRC 1) Compute Public key (uncompressed format from X and Y points)..\n"
                  "TRC X=[" +
                  hexEncode(coordinate(0x11, row.coordinateSize)) + "]\nTRC Y=[" +
                  hexEncode(coordinate(0x61, row.coordinateSize)) +
                  "]\nTRC pubKey(Uncompressed)=[" + hexEncode(point) + "]\nTRC pubKey(B64)=[" +
                  base64Encode(point) +
                  "]\n"
                  "TRC 2) Create KeyObject to get NCRYPT_KEY_HANDLE..\n"
                  "TRC LEAVE\n",
              lines());
}

TEST_P(ImportedCurveTest, hasThePropertiesOfAnyKey)
{
    const CurveCase& row = GetParam();
    const P11KeyObject* key =
        store->findOpenedOrImported(import(peerBlob(row.magic, row.coordinateSize)));
    ASSERT_NE(nullptr, key);
    EXPECT_EQ(text(L""), value(*key, L"Name"));
    EXPECT_EQ(text(L""), value(*key, L"Unique Name"));
    EXPECT_EQ((Bytes{3, 0, 0, 0}), value(*key, L"Key Usage"));
    EXPECT_EQ((Bytes{1, 0, 0, 0}), value(*key, L"Impl Type"));
    EXPECT_EQ(text(row.algorithm), value(*key, L"Algorithm Name"));
    EXPECT_EQ(text(L"ECDSA"), value(*key, L"Algorithm Group"));
    EXPECT_EQ((Bytes{0, 0, 0, 0}), value(*key, L"Export Policy"));
}

TEST_P(ImportedCurveTest, isExportedWithTheSigningMagic)
{
    const CurveCase& row = GetParam();
    const P11KeyObject* key =
        store->findOpenedOrImported(import(peerBlob(row.magic, row.coordinateSize)));
    ASSERT_NE(nullptr, key);
    Bytes expected = peerBlob(row.magic, row.coordinateSize);
    expected[2] = 'S';
    EXPECT_EQ(hexEncode(expected), hexEncode(key->getPubkeyBlob()));
}

TEST_P(ImportedCurveTest, oneByteShortGivesNoKey)
{
    const CurveCase& row = GetParam();
    Bytes blob = peerBlob(row.magic, row.coordinateSize);
    blob.pop_back();
    EXPECT_EQ(0u, import(blob));
    EXPECT_EQ("TRC ENTER\n"
              "TRC ARG[0]:pbData=PTR\n"
              "TRC 0) Parse Input BLOB to get keysize (in bytes)..\n"
              "DBG BCRYPT_ECDH_PUBLIC_" +
                  std::string(row.name) +
                  "_MAGIC recieved, length=" + std::to_string(row.coordinateSize) +
                  " bytes\n"
                  "TRC 1) Compute Public key (uncompressed format from X and Y points)..\n"
                  "ERR The BLOB is shorter than its header says..\n"
                  "TRC LEAVE\n",
              lines());
}

TEST_P(ImportedCurveTest, aLongerBlobIsReadAsFarAsItsHeaderSays)
{
    const CurveCase& row = GetParam();
    Bytes blob = peerBlob(row.magic, row.coordinateSize);
    blob.insert(blob.end(), 9, 0xEE);
    const P11KeyObject* key = store->findOpenedOrImported(import(blob));
    ASSERT_NE(nullptr, key);
    EXPECT_EQ(peerPoint(row.coordinateSize), base64Decode(key->publicKey()));
}

INSTANTIATE_TEST_SUITE_P(Curves, ImportedCurveTest, testing::ValuesIn(curveCases),
                         [](const auto& row) { return row.param.name; });

TEST_F(ImportedKeyTest, otherMagicsAreRefused)
{
    for (const uint32_t magic : {0x31415352u,  // RSA1
                                 0x32415352u,  // RSA2
                                 0x33415352u,  // RSA3
                                 0x31534345u,  // ECDSA P-256, public
                                 0x33534345u,  // P-384
                                 0x35534345u,  // P-521
                                 0x324B4345u,  // ECDH P-256, private
                                 0x344B4345u,  // P-384
                                 0x364B4345u,  // P-521
                                 0x504B4345u,  // ECDH of a named curve
                                 0x45434B31u,  // the right bytes the other way round
                                 0u, 0xFFFFFFFFu}) {
        EXPECT_EQ(0u, import(peerBlob(magic, 32))) << std::hex << magic;
        EXPECT_EQ(refused, lines()) << std::hex << magic;
    }
}

// Up to the header's end and a little further.
TEST_F(ImportedKeyTest, shortBlobsGiveNoKeyAndOneError)
{
    for (const uint32_t magic : {ecdhP256, ecdhP384, ecdhP521, 0x31415352u}) {
        const Bytes whole = peerBlob(magic, 32);
        for (std::ptrdiff_t size = 0; size <= 9; ++size) {
            EXPECT_EQ(0u, import({whole.begin(), whole.begin() + size})) << size;
            const LogLines all = log.takeLines();
            EXPECT_EQ(1u, ofLevel(all, "ERR").size()) << size;
            EXPECT_TRUE(hasLine(all, "TRC NV::KeyStore::addEphemeralKey:LEAVE")) << size;
        }
    }
}

TEST_F(ImportedKeyTest, aLengthThatOverflowsGivesNoKey)
{
    for (const uint32_t cbKey :
         {33u, 64u, 0x7FFFFFFCu, 0x7FFFFFFFu, 0x80000000u, 0x80000020u, 0xFFFFFFF8u, 0xFFFFFFFFu}) {
        const Bytes blob = joinedBytes({blobHeader(ecdhP256, cbKey), Bytes(64, 0x21)});
        EXPECT_EQ(0u, import(blob)) << std::hex << cbKey;
        const std::string said = lines();
        EXPECT_NE(std::string::npos, said.find("ERR The BLOB is shorter than its header says..\n"))
            << said;
    }
}

// The header's length decides, not the curve of the magic number.
TEST_F(ImportedKeyTest, theLengthIsTheHeadersNotTheCurves)
{
    for (const uint32_t cbKey : {0u, 1u, 48u}) {
        const P11KeyObject* key = store->findOpenedOrImported(import(peerBlob(ecdhP256, cbKey)));
        ASSERT_NE(nullptr, key) << cbKey;
        EXPECT_EQ(peerPoint(cbKey), base64Decode(key->publicKey())) << cbKey;
        EXPECT_EQ(256u, key->keyLength());
    }
}

TEST_F(ImportedKeyTest, isNoOpenedKeyAndNoManagedKey)
{
    const auto handle = import(peerBlob(ecdhP256, 32));
    EXPECT_NE(nullptr, store->findOpenedOrImported(handle));
    EXPECT_EQ(nullptr, store->findOpened(handle));
    EXPECT_EQ(0u, store->keyCount());
}

TEST_F(ImportedKeyTest, twoImportsAreTwoKeys)
{
    const auto first = import(peerBlob(ecdhP256, 32));
    const auto second = import(peerBlob(ecdhP256, 32));
    EXPECT_NE(first, second);
    EXPECT_TRUE(store->close(first));
    EXPECT_NE(nullptr, store->findOpenedOrImported(second));
}

TEST_F(ImportedKeyTest, isClosedOnce)
{
    const auto handle = import(peerBlob(ecdhP521, 66));
    EXPECT_TRUE(store->close(handle));
    EXPECT_EQ(nullptr, store->findOpenedOrImported(handle));
    EXPECT_FALSE(store->close(handle));
}

TEST_F(ImportedKeyTest, goesWithItsStore)
{
    import(peerBlob(ecdhP256, 32));
    import(peerBlob(ecdhP384, 48));
    log.takeLines();
    store.reset();
    EXPECT_EQ(2u, countLines(log.takeLines(), "TRC NV::P11KeyObject::~P11KeyObject:ENTER"));
}

}  // namespace NV::test
