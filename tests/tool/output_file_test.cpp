// Output files: what is refused, what is left behind, and who may read the result.

#include <gtest/gtest.h>

#include <windows.h>

#include <cstdio>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "contains.h"
#include "failure.h"
#include "file_rights.h"
#include "folder.h"
#include "output.h"
#include "output_file.h"
#include "text.h"

namespace NV::test {

namespace {

using tool::OutputFile;
using tool::OutputRules;

std::span<const unsigned char> bytesOf(std::string_view text)
{
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

class OutputFiles : public testing::Test {
protected:
    std::filesystem::path at(const wchar_t* name) const { return folder.path() / name; }
    std::string name(const wchar_t* file) const { return tool::toUtf8(at(file)); }

    void write(const wchar_t* file, std::string_view content, const OutputRules& rules = {})
    {
        OutputFile(out, name(file), {}, rules).write(bytesOf(content));
    }

    // The message of the refusal; empty if there is none.
    std::string refusal(const std::string& file, const std::vector<std::string>& inputs = {},
                        const OutputRules& rules = {})
    {
        try {
            const OutputFile output(out, file, inputs, rules);
        } catch (const tool::Failure& failure) {
            return failure.what();
        }
        return {};
    }

    std::vector<std::string> entries() const { return entryNames(folder.path()); }

    tool::Output out;
    TemporaryFolder folder;
};

TEST_F(OutputFiles, AreWrittenByteForByteAndNothingElseIsLeft)
{
    const std::string data("a\r\n\0\x1a\xff", 6);
    write(L"gr\u00f6\u00dfe", data);
    EXPECT_EQ(readFile(at(L"gr\u00f6\u00dfe")), data);
    write(L"empty", "");
    EXPECT_EQ(readFile(at(L"empty")), "");
    EXPECT_EQ(entries().size(), 2U);
}

TEST_F(OutputFiles, CreatingOneLeavesNoFile)
{
    EXPECT_EQ(refusal(name(L"new")), "");
    EXPECT_TRUE(entries().empty());
}

TEST_F(OutputFiles, AnExistingFileNeedsForce)
{
    writeFile(at(L"file"), "old");
    EXPECT_TRUE(contains(refusal(name(L"file")), "already exists"));
    EXPECT_EQ(readFile(at(L"file")), "old");
    write(L"file", "new", {.force = true});
    EXPECT_EQ(readFile(at(L"file")), "new");
    write(L"file", "secret", {.force = true, .secret = true});
    EXPECT_EQ(readFile(at(L"file")), "secret");
    EXPECT_EQ(entries(), std::vector<std::string>{"file"});
}

TEST_F(OutputFiles, AFileThatAppearsMeanwhileIsNotReplaced)
{
    const OutputFile output(out, name(L"file"), {});
    writeFile(at(L"file"), "somebody else's");
    EXPECT_THROW(output.write(bytesOf("result")), tool::Failure);
    EXPECT_EQ(readFile(at(L"file")), "somebody else's");
    EXPECT_EQ(entries(), std::vector<std::string>{"file"});
}

TEST_F(OutputFiles, TheInputIsRefusedUnderAnyName)
{
    writeFile(at(L"Input File.txt"), "input");
    const std::string input = name(L"Input File.txt");
    ASSERT_TRUE(CreateHardLinkW(at(L"link").c_str(), at(L"Input File.txt").c_str(), nullptr));
    std::filesystem::create_directory(at(L"sub"));
    const std::vector<std::string> names = {input, name(L"INPUT FILE.TXT"), name(L"link"),
                                            name(L"sub\\..\\link")};
    for (const std::string& other : names) {
        const std::string message = refusal(other, {"-", input}, {.force = true});
        EXPECT_EQ(message, other + " is the same file as " + input);
    }
    wchar_t shortName[MAX_PATH] = L"";
    if (GetShortPathNameW(at(L"Input File.txt").c_str(), shortName, MAX_PATH) > 0) {
        const std::string other = tool::toUtf8(std::wstring_view(shortName));
        EXPECT_TRUE(contains(refusal(other, {input}, {.force = true}), "is the same file"));
    }
    EXPECT_EQ(readFile(at(L"Input File.txt")), "input");
}

TEST_F(OutputFiles, AnotherFileWithTheSameContentIsNone)
{
    writeFile(at(L"a"), "x");
    writeFile(at(L"b"), "x");
    EXPECT_EQ(refusal(name(L"a"), {name(L"b")}, {.force = true}), "");
}

TEST_F(OutputFiles, AFolderOrAnUnwritablePlaceIsRefusedAtOnce)
{
    EXPECT_TRUE(contains(refusal(name(L"none\\file")), "file cannot be written: "));
    EXPECT_TRUE(contains(refusal(tool::toUtf8(folder.path()), {}, {.force = true}),
                         "cannot be written: it is a folder"));
    writeFile(at(L"fixed"), "x");
    SetFileAttributesW(at(L"fixed").c_str(), FILE_ATTRIBUTE_READONLY);
    EXPECT_TRUE(contains(refusal(name(L"fixed"), {}, {.force = true}), "it is read-only"));
    SetFileAttributesW(at(L"fixed").c_str(), FILE_ATTRIBUTE_NORMAL);
}

TEST_F(OutputFiles, LongNamesHaveRoom)
{
    const std::wstring longName(200, L'n');
    write(longName.c_str(), "x");
    EXPECT_EQ(readFile(at(longName.c_str())), "x");
}

// Wine keeps the rights as the mode of a Unix file, which always has an entry of the system.
TEST_F(OutputFiles, ASecretIsReadableByTheUserAlone)
{
    write(L"public", "x");
    EXPECT_TRUE(contains(rightsOf(at(L"public")), ";WD)")) << rightsOf(at(L"public"));
    writeFile(at(L"secret"), "for all");
    write(L"secret", "secret", {.force = true, .secret = true});
    const std::string access = rightsOf(at(L"secret"));
    for (const char* others : {";WD)", ";AU)", ";DU)"})
        EXPECT_FALSE(contains(access, others)) << access;
    EXPECT_TRUE(contains(access, "(A;")) << access;
}

TEST_F(OutputFiles, AReplacedFileKeepsItsRights)
{
    writeFile(at(L"old"), "for all");
    setRights(at(L"old"), writableByAll);
    const std::string rights = rightsOf(at(L"old"));
    write(L"old", "new", {.force = true});
    EXPECT_EQ(readFile(at(L"old")), "new");
    EXPECT_EQ(rightsOf(at(L"old")), rights);
    write(L"new", "new");
    EXPECT_NE(rightsOf(at(L"new")), rights);
}

// A virus scanner opens new files. A deleted file keeps its name until the scanner has closed it.
TEST_F(OutputFiles, TheNameOfADeletedFileThatIsStillOpenIsNotNeeded)
{
    std::vector<HANDLE> scanned;
    for (const char* number : {"00", "01"}) {
        char file[64];
        std::snprintf(file, sizeof file, "keywarden-%08lx-%s.tmp", GetCurrentProcessId(), number);
        const auto path = folder.path() / file;
        scanned.push_back(CreateFileW(path.c_str(), GENERIC_WRITE,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      nullptr, CREATE_NEW, 0, nullptr));
        ASSERT_NE(scanned.back(), INVALID_HANDLE_VALUE);
        ASSERT_TRUE(DeleteFileW(path.c_str()));
    }
    EXPECT_NO_THROW(write(L"result", "x"));
    for (HANDLE handle : scanned)
        CloseHandle(handle);
    EXPECT_EQ(entries(), std::vector<std::string>{"result"});
}

TEST_F(OutputFiles, AFileThatIsInUseForAMomentIsReplaced)
{
    writeFile(at(L"file"), "old");
    HANDLE scanned = CreateFileW(at(L"file").c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                 OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(scanned, INVALID_HANDLE_VALUE);
    std::thread scanner([&scanned] {
        Sleep(300);
        CloseHandle(scanned);
    });
    EXPECT_NO_THROW(write(L"file", "new", {.force = true}));
    scanner.join();
    EXPECT_EQ(readFile(at(L"file")), "new");
}

TEST_F(OutputFiles, ADeviceIsWrittenTo)
{
    EXPECT_NO_THROW(OutputFile(out, "NUL", {}).write(bytesOf("nothing")));
}

}  // namespace

}  // namespace NV::test
