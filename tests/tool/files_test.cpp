// Whole files, and the errors that name them.

#include <CLI/Error.hpp>

#include <gtest/gtest.h>

#include <string>

#include "contains.h"
#include "failure.h"
#include "files.h"
#include "folder.h"
#include "text.h"

namespace NV::test {

namespace {

// The message of the Failure that the action throws.
template <typename Action>
std::string failureOf(const Action& action)
{
    try {
        action();
    } catch (const tool::Failure& failure) {
        return failure.what();
    }
    return "no failure";
}

TEST(Files, ComeBackByteForByte)
{
    const TemporaryFolder folder;
    const auto file = folder.path() / L"gr\u00f6\u00dfe";
    const std::string data("a\r\n\0\x1a\xff", 6);
    writeFile(file, data);
    const Bytes bytes(data.begin(), data.end());
    EXPECT_EQ(tool::readFile(file), bytes);
    EXPECT_EQ(tool::readInput(tool::toUtf8(file)), bytes);
    EXPECT_EQ(tool::readSecretInput(tool::toUtf8(file)), SecretBytes(data.begin(), data.end()));
    writeFile(file, "");
    EXPECT_EQ(tool::readFile(file), Bytes{});
    EXPECT_EQ(tool::readInput(tool::toUtf8(file)), Bytes{});
}

TEST(Files, AreReadWholeWhateverTheirLength)
{
    const TemporaryFolder folder;
    const std::string file = tool::toUtf8(folder.path() / "file");
    for (const size_t size : {size_t{65535}, size_t{65536}, size_t{65537}, size_t{3} << 20}) {
        std::string content(size, 'x');
        content.back() = 'y';
        writeFile(folder.path() / "file", content);
        EXPECT_EQ(tool::readInput(file), Bytes(content.begin(), content.end())) << size;
    }
}

TEST(Files, FailuresNameTheFileAndTheReason)
{
    const TemporaryFolder folder;
    const auto missing = folder.path() / "none" / "file";
    const std::string name = tool::toUtf8(missing);
    for (const std::string& read :
         {failureOf([&] { tool::readFile(missing); }), failureOf([&] { tool::readInput(name); })}) {
        EXPECT_TRUE(read.starts_with(name + " cannot be read: ")) << read;
        EXPECT_TRUE(read.ends_with(")")) << read;
    }
    EXPECT_TRUE(contains(failureOf([&] { tool::readFile(folder.path()); }), " cannot be read"));
    EXPECT_TRUE(contains(failureOf([&] { tool::readInput(tool::toUtf8(folder.path())); }),
                         " cannot be read"));
}

TEST(Files, StandardInputIsReadOnce)
{
    EXPECT_NO_THROW(tool::requireOneStandardInput("--peer", {"-", "file", "./-"}));
    EXPECT_THROW(tool::requireOneStandardInput("--peer", {"-", "file", "-"}), CLI::ValidationError);
}

}  // namespace

}  // namespace NV::test
