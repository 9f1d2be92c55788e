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

TEST_F(LibraryGuard, TellsThatTheLibraryEndsTheProcess)
{
    EXPECT_EQ(run(L"C_GetSlotList exit"),
              "keywarden: the vendor's library ended the process during reading the token. "
              "Run \"keywarden check\".\n");
}

// The module makes its log folder when it is loaded. A share that does not answer cannot be had here.
TEST_F(LibraryGuard, DoesNotBlameTheLibraryWhenTheProviderDoesNotLoad)
{
    const std::string module = narrowPath(oddLibrary(L"hanging_attach.dll"));
    const ChildResult result = profile.run({"keys", "--timeout", "1", "--module", module}, options);
    EXPECT_EQ(result.exitCode, 1U);
    EXPECT_EQ(result.output,
              "keywarden: the provider did not load within 1 s; does its log folder answer? If "
              "logStore is on a network drive, choose a folder of this computer.\n");
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

// Standard output is for the certificate.
TEST_F(LibraryGuard, KeepsItsDocumentOutOfTheResult)
{
    setFault(L"C_Initialize crash");
    const auto script = profile.path() / "export.cmd";
    const auto errors = profile.path() / "errors";
    writeFile(script, "@\"" + narrowPath(programFolder() / L"keywarden.exe") + "\" --profile \"" +
                          narrowPath(profile.path()) + "\" --json export --key 7391 -o - 2>\"" +
                          narrowPath(errors) + "\"\r\n");
    options.arguments = {"/c", narrowPath(script)};
    const ChildResult result = runProgram(L"C:\\windows\\system32\\cmd.exe", options);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.exitCode, 1U);
    const Json document = parsed(readFile(errors));
    EXPECT_TRUE(contains(document.value("error", ""), "crashed during OpenProvider"));
}

}  // namespace

}  // namespace NV::test
