// Whole files, and the errors that name them.

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
    const Bytes data{'a', '\r', '\n', 0, 0x1A, 0xFF};
    tool::writeFile(file, data);
    EXPECT_EQ(tool::readFile(file), data);
    tool::writeFile(file, {});
    EXPECT_EQ(tool::readFile(file), Bytes{});
}

TEST(Files, FailuresNameTheFileAndTheReason)
{
    const TemporaryFolder folder;
    const auto missing = folder.path() / "none" / "file";
    const std::string name = tool::toUtf8(missing);
    const std::string read = failureOf([&] { tool::readFile(missing); });
    EXPECT_TRUE(read.starts_with(name + " cannot be read: ")) << read;
    EXPECT_TRUE(read.ends_with(")")) << read;
    const std::string written = failureOf([&] { tool::writeFile(missing, {1}); });
    EXPECT_TRUE(written.starts_with(name + " cannot be written: ")) << written;
    EXPECT_TRUE(contains(failureOf([&] { tool::readFile(folder.path()); }), " cannot be read"));
}

}  // namespace

}  // namespace NV::test
