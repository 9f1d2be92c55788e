// Hashes of files, and the names of hash algorithms.

#include <CLI/Error.hpp>

#include <gtest/gtest.h>

#include <string>

#include "failure.h"
#include "folder.h"
#include "formats/hashing.h"
#include "joined.h"
#include "output.h"
#include "text.h"

namespace NV::test {

using tool::digestInfo;
using tool::Failure;
using tool::hashInput;
using tool::hashNamed;
using tool::hashSize;

namespace {

Bytes hashOf(const std::string& name, const std::string& content)
{
    const TemporaryFolder folder;
    writeFile(folder.path() / "file", content);
    return hashInput(tool::Output(), tool::toUtf8(folder.path() / "file"), hashNamed(name));
}

}  // namespace

TEST(Hashing, EmptyFile)
{
    EXPECT_EQ(hexEncode(hashOf("sha1", "")), "DA39A3EE5E6B4B0D3255BFEF95601890AFD80709");
    EXPECT_EQ(hexEncode(hashOf("sha256", "")),
              "E3B0C44298FC1C149AFBF4C8996FB92427AE41E4649B934CA495991B7852B855");
}

TEST(Hashing, KnownAnswers)
{
    EXPECT_EQ(hexEncode(hashOf("sha1", "abc")), "A9993E364706816ABA3E25717850C26C9CD0D89D");
    EXPECT_EQ(hexEncode(hashOf("SHA256", "abc")),
              "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD");
    EXPECT_EQ(hexEncode(hashOf("Sha384", "abc")),
              "CB00753F45A35E8BB5A03D699AC65007272C32AB0EDED1631A8B605A43FF5BED8086072BA1E7CC2358BA"
              "ECA134C825A7");
    EXPECT_EQ(hexEncode(hashOf("sha512", "abc")),
              "DDAF35A193617ABACC417349AE20413112E6FA4E89A97EA20A9EEEE64B55D39A2192992A274FC1A836BA"
              "3C23A3FEEBBD454D4423643CE80E2A9AC94FA54CA49F");
}

// Files that are read in more than one piece. The hash of a million times "a" is a known answer.
TEST(Hashing, SeveralPieces)
{
    EXPECT_EQ(hexEncode(hashOf("sha256", std::string(1000000, 'a'))),
              "CDC76E5C9914FB9281A1C7E284D73E67F1809A48A497200E046D39CCC7112CD0");
    const size_t piece = size_t{1} << 20;
    for (const size_t size : {piece - 1, piece, piece + 1, 5 * piece, 5 * piece + 7}) {
        const std::string content(size, '\0');
        std::string changed = content;
        changed.back() = 1;
        EXPECT_NE(hashOf("sha256", content), hashOf("sha256", changed)) << size;
    }
    EXPECT_EQ(hexEncode(hashOf("sha256", std::string(5 * piece + 7, 'k'))),
              "444E83321D086854EF89A7EE616386110987812C6A5787EB426AE5A7D4ACB203");
}

TEST(Hashing, FileThatIsNotThereFails)
{
    const TemporaryFolder folder;
    EXPECT_THROW(hashInput(tool::Output(), tool::toUtf8(folder.path() / "none"), hashNamed("sha1")),
                 Failure);
    EXPECT_THROW(hashInput(tool::Output(), tool::toUtf8(folder.path()), hashNamed("sha1")),
                 Failure);
}

TEST(Hashing, UnknownNameIsWrongUsage)
{
    for (const char* name : {"", "md5", "sha2", "sha-256", "sha256 ", "größe"}) {
        EXPECT_THROW(hashNamed(name), CLI::ValidationError) << name;
        EXPECT_NE(tool::checkHashName(name), "") << name;
    }
    EXPECT_EQ(tool::checkHashName("sHa512"), "");
}

TEST(Hashing, SizeAndDigestInfo)
{
    EXPECT_EQ(hashSize(hashNamed("sha1")), 20U);
    EXPECT_EQ(hashSize(hashNamed("sha256")), 32U);
    EXPECT_EQ(hashSize(hashNamed("sha384")), 48U);
    EXPECT_EQ(hashSize(hashNamed("sha512")), 64U);
    EXPECT_EQ(digestInfo(hashNamed("sha1"), Bytes(20, 0xAB)),
              joined({hexDecode("3021300906052B0E03021A05000414"), Bytes(20, 0xAB)}));
    EXPECT_EQ(digestInfo(hashNamed("sha512"), Bytes(64, 0xCD)),
              joined({hexDecode("3051300D060960864801650304020305000440"), Bytes(64, 0xCD)}));
}

}  // namespace NV::test
