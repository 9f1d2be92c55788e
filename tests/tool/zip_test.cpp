// The bytes of an archive, and its limits. report_search.py lets unzip and Python read one.

#include "formats/zip.h"

#include <gtest/gtest.h>

#include <zlib.h>

#include <string>

#include "failure.h"

namespace NV::test {

namespace {

using tool::Failure;
using tool::ZipArchive;

constexpr SYSTEMTIME odd{2026, 11, 0, 23, 17, 5, 9, 0};

uint32_t numberAt(const Bytes& bytes, size_t at, size_t size)
{
    uint32_t number = 0;
    for (size_t i = size; i > 0; --i)
        number = number << 8 | bytes.at(at + i - 1);
    return number;
}

std::string textAt(const Bytes& bytes, size_t at, size_t size)
{
    return {bytes.begin() + static_cast<ptrdiff_t>(at),
            bytes.begin() + static_cast<ptrdiff_t>(at + size)};
}

// The content of the entry whose header is there.
std::string inflated(Bytes& bytes, size_t at)
{
    const uint32_t packed = numberAt(bytes, at + 18, 4);
    std::string content(numberAt(bytes, at + 22, 4), '\0');
    z_stream z{};
    EXPECT_EQ(inflateInit2(&z, -MAX_WBITS), Z_OK);
    z.next_in = &bytes.at(at + 30 + numberAt(bytes, at + 26, 2));
    z.avail_in = packed;
    z.next_out = reinterpret_cast<Bytef*>(content.data());
    z.avail_out = static_cast<uInt>(content.size());
    EXPECT_EQ(inflate(&z, Z_FINISH), Z_STREAM_END);
    EXPECT_EQ(z.avail_in, 0U);
    EXPECT_EQ(z.avail_out, 0U);
    inflateEnd(&z);
    return content;
}

TEST(Zip, HasTheFieldsOfTheFormat)
{
    ZipArchive archive(odd);
    archive.add("first.txt", "odd content");
    archive.add("log/\xE6\x97\xA5.log", "");
    Bytes bytes = archive.finish();
    EXPECT_EQ(numberAt(bytes, 0, 4), 0x04034B50U);
    EXPECT_EQ(numberAt(bytes, 6, 2), 0x0800U);  // UTF-8
    EXPECT_EQ(numberAt(bytes, 8, 2), 8U);
    EXPECT_EQ(numberAt(bytes, 10, 2), 17U << 11 | 5U << 5 | 4U);
    EXPECT_EQ(numberAt(bytes, 12, 2), 46U << 9 | 11U << 5 | 23U);
    EXPECT_EQ(numberAt(bytes, 14, 4), crc32(0, reinterpret_cast<const Bytef*>("odd content"), 11));
    EXPECT_EQ(textAt(bytes, 30, 9), "first.txt");
    EXPECT_EQ(inflated(bytes, 0), "odd content");
    const size_t end = bytes.size() - 22;
    EXPECT_EQ(numberAt(bytes, end, 4), 0x06054B50U);
    EXPECT_EQ(numberAt(bytes, end + 10, 2), 2U);
    const size_t directory = numberAt(bytes, end + 16, 4);
    EXPECT_EQ(directory + numberAt(bytes, end + 12, 4), end);
    const size_t second = directory + 46 + 9;
    EXPECT_EQ(numberAt(bytes, second, 4), 0x02014B50U);
    EXPECT_EQ(textAt(bytes, second + 46, 11), "log/\xE6\x97\xA5.log");
    EXPECT_EQ(inflated(bytes, numberAt(bytes, second + 42, 4)), "");
}

TEST(Zip, PacksPiecesAsOneContent)
{
    std::string content;
    for (int i = 0; i < 400'000; ++i)
        content += "line " + std::to_string(i % 10007 * 7919 % 10007) + "\n";
    ZipArchive archive(odd);
    archive.begin("odd");
    for (size_t at = 0; at < content.size(); at += 70'001)
        archive.add(std::string_view(content).substr(at, 70'001));
    EXPECT_EQ(archive.end(), content.size());
    Bytes bytes = archive.finish();
    EXPECT_LT(bytes.size(), content.size() / 2);
    EXPECT_EQ(inflated(bytes, 0), content);
}

TEST(Zip, RefusesWhatItsFieldsCannotHold)
{
    ZipArchive small(odd, 1000);
    small.begin("odd");
    small.add(std::string(900, 'x'));
    EXPECT_THROW(small.add(std::string(101, 'x')), Failure);
    ZipArchive many(odd, 200);
    EXPECT_THROW(for (int i = 0; i < 10; ++i) many.add("odd", "x");, Failure);
    ZipArchive named(odd);
    EXPECT_THROW(named.begin(std::string(65536, 'x')), Failure);
    ZipArchive full(odd);
    for (int i = 0; i < 0xFFFE; ++i)
        full.add("", "");
    EXPECT_THROW(full.begin(""), Failure);
}

TEST(Zip, HasNoTimeBefore1980)
{
    ZipArchive archive({1979, 1, 0, 1, 0, 0, 0, 0});
    archive.add("odd", "x");
    const Bytes bytes = archive.finish();
    EXPECT_EQ(numberAt(bytes, 12, 2) >> 9, 0U);
}

}  // namespace

}  // namespace NV::test
