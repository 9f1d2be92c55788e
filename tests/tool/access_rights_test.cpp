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
}

bool othersMayWrite(const wchar_t* sddl)
{
    const Descriptor descriptor = descriptorOf(sddl);
    BOOL present = FALSE;
    BOOL defaulted = FALSE;
    PACL list = nullptr;
    EXPECT_TRUE(GetSecurityDescriptorDacl(descriptor.get(), &present, &list, &defaulted));
    return tool::othersMayWrite(list);
}

// A list itself: not every file system keeps the rights of other users.
TEST(AccessRights, CountAnyOtherUserAsOthers)
{
    for (const wchar_t* sddl : {
             L"D:(A;;FA;;;S-1-5-21-1-2-3-4711)",                    // a user of the domain
             L"D:(A;;FW;;;S-1-5-21-1-2-3-513)",                     // all of them
             L"D:(A;;FA;;;SY)(A;;FA;;;BA)(A;;0x2;;;S-1-5-32-545)",  // users of this computer
             L"D:(A;;WD;;;S-1-5-21-1-2-3-4711)(A;;FA;;;OW)",        // may give themselves the right
         })
        EXPECT_TRUE(othersMayWrite(sddl));
    EXPECT_TRUE(tool::othersMayWrite(static_cast<PACL>(nullptr)));
    for (const wchar_t* sddl : {
             L"D:(A;;FA;;;SY)(A;;FA;;;BA)(A;;FRFX;;;S-1-5-32-545)",
             L"D:(A;;FA;;;S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464)",
             L"D:(A;;FA;;;OW)(A;;FR;;;S-1-5-21-1-2-3-4711)",
             L"D:(A;OICIIO;FA;;;S-1-5-32-545)",  // of what is created in the folder
             L"D:(D;;FA;;;S-1-5-32-545)",
         })
        EXPECT_FALSE(othersMayWrite(sddl));
}

TEST(AccessRights, LetTheCurrentUserWrite)
{
    const TemporaryFolder folder;
    EXPECT_FALSE(tool::othersMayWrite(folder.path()));
}

TEST(AccessRights, CountAsWritableIfTheyCannotBeRead)
{
    const TemporaryFolder folder;
    EXPECT_TRUE(tool::othersMayWrite(folder.path() / "none.dll"));
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
