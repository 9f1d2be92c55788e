// Reading the headers of intact and of damaged images.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "formats/pe_file.h"
#include "tool_program.h"

namespace NV::test {

namespace {

// A real image that is cut off at many places, or has wrong numbers in its headers.
TEST(PeFile, TakesBrokenImages)
{
    const TemporaryFolder folder;
    const auto file = folder.path() / "odd.dll";
    const std::string whole = readFile(oddLibrary(L"needs_dependency.dll"));
    const auto image = tool::readPeFile(oddLibrary(L"needs_dependency.dll"));
    ASSERT_TRUE(image);
    EXPECT_EQ(image->machine, tool::machineAmd64);
    EXPECT_NE(std::ranges::find(image->imports, "odd_dependency.dll"), image->imports.end());
    for (size_t size = 0; size < 1024; size += 7) {
        writeFile(file, whole.substr(0, size));
        tool::readPeFile(file);
    }
    for (size_t at = 0x3C; at < 0x300; at += 2) {
        std::string spoilt = whole;
        std::memset(spoilt.data() + at, 0xFF, 4);
        writeFile(file, spoilt);
        const auto read = tool::readPeFile(file);
        EXPECT_TRUE(!read || read->imports.size() <= 4096);
    }
}

}  // namespace

}  // namespace NV::test
