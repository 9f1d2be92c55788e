// Where the PKCS#11 library and the DLLs that it needs are loaded from: M13.

#include <algorithm>
#include <filesystem>
#include <string>

#include "folder.h"
#include "module_fixture.h"

namespace NV::test {

namespace {

class LibraryPathTest : public ModernModuleTest {
protected:
    // What opening answers with this value of p11File.
    SECURITY_STATUS openingWith(const std::string& u8Path, bool modern = true)
    {
        profile.writeConfig(
            (modern ? "mode=modern\n" : "") +
            std::string("logLevel=TRACE\nlogTypes=FILE\nlogStore=~/logs\nlogRotate=7\n"
                        "p11File=") +
            u8Path + "\n");
        std::filesystem::remove_all(profile.path() / "logs");
        module.emplace();
        NCRYPT_PROV_HANDLE opened = 0;
        const SECURITY_STATUS result = table()->OpenProvider(&opened, L"", 0);
        if (result == ERROR_SUCCESS)
            table()->FreeProvider(opened);
        lines = readLog(profile.path() / "logs");
        module.reset();
        return result;
    }

    LogLines lines;
};

}  // namespace

TEST_F(LibraryPathTest, aPathThatIsNotAbsoluteIsRefused)
{
    for (const std::string path : {"scripted_token.dll", "./scripted_token.dll", "bin/x.dll"}) {
        EXPECT_EQ(status(NTE_INTERNAL_ERROR), openingWith(path)) << path;
        EXPECT_NE(std::string::npos,
                  messages(lines, "ERR").find("FAILURE: " + path + " is not an absolute path\n"));
        EXPECT_EQ(std::string::npos, messages(lines, "TRC").find("2) Load Module"));
    }
    EXPECT_EQ(0U, token.calls("C_GetFunctionList").size());
}

TEST_F(LibraryPathTest, anAbsolutePathIsLoaded)
{
    EXPECT_EQ(status(ERROR_SUCCESS), openingWith(ScriptedToken::path()));
}

#ifdef _WIN32

namespace {

std::string inUtf8(const std::filesystem::path& path)
{
    const std::u8string text = path.u8string();
    return {text.begin(), text.end()};
}

}  // namespace

TEST_F(LibraryPathTest, aDriveWithoutARootAndARootWithoutADriveAreNotAbsolute)
{
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), openingWith("Z:scripted_token.dll"));
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), openingWith("\\scripted_token.dll"));
}

TEST_F(LibraryPathTest, eitherSlashSeparatesFolders)
{
    std::string path = ScriptedToken::path();
    std::ranges::replace(path, '\\', '/');
    EXPECT_EQ(status(ERROR_SUCCESS), openingWith(path));
    std::ranges::replace(path, '/', '\\');
    EXPECT_EQ(status(ERROR_SUCCESS), openingWith(path));
}

TEST_F(LibraryPathTest, aPathMayHaveAnyCharacterInModern)
{
    const std::filesystem::path folder = profile.path() / L"\u65E5\u672C\u8A9E \u00FC";
    std::filesystem::create_directories(folder);
    const std::filesystem::path copy = folder / L"\u9375.dll";
    std::filesystem::copy_file(ScriptedToken::widePath(), copy);
    EXPECT_EQ(status(ERROR_SUCCESS), openingWith(inUtf8(copy)));
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), openingWith(inUtf8(copy), false));
}

namespace {

// A PKCS#11 library that needs a DLL, each in a folder that the test chooses.
class NeededDllTest : public LibraryPathTest {
protected:
    NeededDllTest() : libraries_(profile.path() / "libraries"), current_(profile.path() / "current")
    {
        std::filesystem::create_directories(libraries_);
        std::filesystem::create_directories(current_);
        std::filesystem::copy_file(widePathBesideTest(L"support/dependent_library.dll"), library());
        std::filesystem::current_path(current_);
    }
    void TearDown() override { std::filesystem::current_path(before_); }

    std::filesystem::path library() const { return libraries_ / "dependent_library.dll"; }
    void putNeededDllInto(const std::filesystem::path& folder) const
    {
        std::filesystem::copy_file(widePathBesideTest(L"support/needed_library.dll"),
                                   folder / "needed_library.dll");
    }
    bool loads(bool modern)
    {
        static_cast<void>(openingWith(inUtf8(library()), modern));
        // A provider that was not opened keeps its library loaded.
        while (HMODULE loaded = GetModuleHandleW(L"dependent_library.dll"))
            FreeLibrary(loaded);
        EXPECT_EQ(nullptr, GetModuleHandleW(L"needed_library.dll"));
        return messages(lines, "DBG").find("is loaded as") != std::string::npos;
    }

    std::filesystem::path before_ = std::filesystem::current_path();
    std::filesystem::path libraries_;
    std::filesystem::path current_;
};

}  // namespace

TEST_F(NeededDllTest, isFoundBesideTheLibrary)
{
    putNeededDllInto(libraries_);
    EXPECT_TRUE(loads(true));
}

TEST_F(NeededDllTest, isNotTakenFromTheCurrentFolderInModern)
{
    putNeededDllInto(current_);
    EXPECT_TRUE(loads(false));
    EXPECT_FALSE(loads(true));
}

#endif

}  // namespace NV::test
