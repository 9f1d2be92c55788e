// A library that crashes or hangs in a command that has loaded it: one line says so.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "certified_profile.h"
#include "contains.h"

namespace NV::test {

namespace {

class LibraryGuard : public testing::Test, protected CertifiedProfile {
protected:
    std::string run(const std::wstring& fault)
    {
        setFault(fault);
        const ChildResult result = profile.run({"keys", "--timeout", "3"}, options);
        EXPECT_EQ(result.exitCode, 1U) << result.output;
        EXPECT_EQ(std::ranges::count(result.output, '\n'), 1) << result.output;
        return result.output;
    }
};

TEST_F(LibraryGuard, TellsOfACrash)
{
    const std::string line = run(L"C_GetSlotList crash");
    EXPECT_TRUE(contains(line, "keywarden: the vendor's library crashed during reading the token "
                               "(0xC0000005 in "))
        << line;
    EXPECT_TRUE(contains(line, "scripted_token.dll)")) << line;
}

TEST_F(LibraryGuard, TellsOfACallThatDoesNotComeBack)
{
    const std::string line = run(L"C_Initialize hang");
    EXPECT_TRUE(contains(line,
                         "keywarden: the vendor's library did not come back from reading the "
                         "token within 3 s; is its service running? Run \"keywarden check\"."))
        << line;
}

// The module handles the signals of a crash itself in classic, but the program comes first.
TEST_F(LibraryGuard, TellsTheOperationOfTheProvider)
{
    setCertificate(certificateWithSerial("rsa2048", 818));
    for (const bool modern : {false, true}) {
        if (modern)
            setModern();
        // The program itself makes one call of it, on the way to the provider.
        setFault(L"C_GetInfo crash-second");
        const ChildResult result = profile.run({"keys", "--timeout", "3"}, options);
        EXPECT_EQ(result.exitCode, 1U) << result.output;
        EXPECT_TRUE(contains(result.output, "crashed during OpenProvider (0xC0000005"))
            << result.output;
    }
}

TEST_F(LibraryGuard, PrintsOneDocument)
{
    setFault(L"C_Initialize hang");
    const Json document = profile.json({"keys", "--timeout", "3"}, 1, options);
    EXPECT_TRUE(contains(document["error"].get<std::string>(), "did not come back"));
}

}  // namespace

}  // namespace NV::test
