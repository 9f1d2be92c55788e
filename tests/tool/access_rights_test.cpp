// Who may change a file, and keeping it so.

#include <gtest/gtest.h>

#include "access_rights.h"
#include "file_rights.h"
#include "folder.h"

namespace NV::test {

namespace {

TEST(AccessRights, TellWhetherOthersMayWrite)
{
    const TemporaryFolder folder;
    const auto file = folder.path() / "odd.dll";
    writeFile(file, "");
    setRights(file, writableByAll);
    EXPECT_TRUE(tool::othersMayWrite(file));
    setRights(file, readableByAll);
    EXPECT_FALSE(tool::othersMayWrite(file));
    EXPECT_FALSE(tool::othersMayWrite(folder.path() / "none.dll"));
}

TEST(AccessRights, AreCopied)
{
    const TemporaryFolder folder;
    const auto from = folder.path() / "from";
    const auto to = folder.path() / "to";
    writeFile(from, "");
    writeFile(to, "");
    setRights(from, writableByAll);
    ASSERT_NE(rightsOf(from), rightsOf(to));
    EXPECT_TRUE(tool::copyAccessRights(from, to));
    EXPECT_EQ(rightsOf(from), rightsOf(to));
    EXPECT_FALSE(tool::copyAccessRights(folder.path() / "none", to));
}

}  // namespace

}  // namespace NV::test
