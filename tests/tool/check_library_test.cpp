// keywarden check on libraries that are wrong in one way each.

#include <gtest/gtest.h>

#include <windows.h>

#include <filesystem>
#include <optional>
#include <string>

#include "formats/pe_file.h"
#include "scripted_token.h"
#include "text.h"
#include "tool_program.h"

namespace NV::test {

namespace {

// The headers of an image without sections.
std::string imageFor(WORD machine)
{
    IMAGE_DOS_HEADER dos{};
    dos.e_magic = IMAGE_DOS_SIGNATURE;
    dos.e_lfanew = sizeof dos;
    IMAGE_NT_HEADERS32 headers{};
    headers.Signature = IMAGE_NT_SIGNATURE;
    headers.FileHeader.Machine = machine;
    headers.FileHeader.SizeOfOptionalHeader = sizeof headers.OptionalHeader;
    headers.FileHeader.Characteristics = IMAGE_FILE_EXECUTABLE_IMAGE | IMAGE_FILE_DLL;
    headers.OptionalHeader.Magic = IMAGE_NT_OPTIONAL_HDR32_MAGIC;
    std::string image(reinterpret_cast<const char*>(&dos), sizeof dos);
    image.append(reinterpret_cast<const char*>(&headers), sizeof headers);
    return image;
}

class CheckLibrary : public testing::Test {
protected:
    // The document of a check with that library. At least one step must fail.
    Json check(const std::filesystem::path& library, const ChildOptions& options = {})
    {
        profile.writeConfig(goodConfig(library));
        return profile.json({"check"}, 1, options);
    }

    // The same in modern, where the configuration is UTF-8.
    Json checkModern(const std::filesystem::path& library, const ChildOptions& options = {})
    {
        profile.writeConfig("mode=modern\np11File=" + tool::toUtf8(library) + "\n");
        return profile.json({"check"}, 1, options);
    }

    std::filesystem::path write(const std::string& name, const std::string& content)
    {
        auto file = folder.path() / name;
        writeFile(file, content);
        return file;
    }

    std::filesystem::path copy(const std::filesystem::path& from, const std::filesystem::path& to)
    {
        create_directories((folder.path() / to).parent_path());
        copy_file(from, folder.path() / to);
        return folder.path() / to;
    }

    static void expectFailed(const Json& document, const char* name, const std::string& text,
                             const std::string& advice)
    {
        const Json step = stepOf(document, name);
        ASSERT_FALSE(step.is_null()) << document.dump(1);
        EXPECT_EQ(step["outcome"], "failed") << step;
        EXPECT_NE(step["text"].get<std::string>().find(text), std::string::npos) << step;
        EXPECT_NE(step["advice"].get<std::string>().find(advice), std::string::npos) << step;
        // Steps that need the library are skipped.
        EXPECT_EQ(stepOf(document, "slots")["outcome"], "skipped");
    }

    ToolProfile profile;
    TemporaryFolder folder;
};

TEST_F(CheckLibrary, For32Bit)
{
    expectFailed(check(write("odd.dll", imageFor(IMAGE_FILE_MACHINE_I386))), "library-architecture",
                 "the library is for 32-bit x86", "Install the vendor's 64-bit library");
}

TEST_F(CheckLibrary, ForArm)
{
    expectFailed(check(write("odd.dll", imageFor(tool::machineArm64))), "library-architecture",
                 "the library is for 64-bit ARM", "64-bit library");
}

TEST_F(CheckLibrary, ThatIsNoDll)
{
    expectFailed(check(write("odd.dll", "#!/bin/sh\n")), "library-architecture",
                 "the file is not a Windows DLL", "the vendor's PKCS#11 DLL");
}

TEST_F(CheckLibrary, ThatIsEmpty)
{
    expectFailed(check(write("odd.dll", "")), "library-architecture",
                 "the file is not a Windows DLL", "the vendor's PKCS#11 DLL");
}

TEST_F(CheckLibrary, ThatIsAFolder)
{
    expectFailed(check(folder.path()), "library-file", "there is no file", "the full path");
}

TEST_F(CheckLibrary, WithADependencyThatIsNotThere)
{
    const auto library = copy(oddLibrary(L"needs_dependency.dll"), "needs_dependency.dll");
    const auto dependency = copy(oddLibrary(L"odd_dependency.dll"), "lib/odd_dependency.dll");
    wchar_t path[32767];
    GetEnvironmentVariableW(L"PATH", path, static_cast<DWORD>(std::size(path)));
    const ChildOptions options{
        .environment = {{L"PATH", dependency.parent_path().wstring() + L";" + path}}};
    Json document = check(library, options);
    EXPECT_EQ(stepOf(document, "library-dependencies")["outcome"], "ok")
        << stepOf(document, "library-dependencies");
    EXPECT_EQ(stepOf(document, "library-loads")["text"], "it does not export C_GetFunctionList");

    remove(dependency);
    document = check(library, options);
    expectFailed(document, "library-dependencies",
                 "required DLLs were not found: odd_dependency.dll", "add their folder to PATH");
    expectFailed(document, "library-loads",
                 "the system cannot load it: ", "the library's documentation");
}

// The check agrees with the loader, which does not search the library's own folder.
TEST_F(CheckLibrary, WithADependencyBesideIt)
{
    const auto library = copy(oddLibrary(L"needs_dependency.dll"), "needs_dependency.dll");
    copy(oddLibrary(L"odd_dependency.dll"), "odd_dependency.dll");
    const Json document = check(library);
    const bool found = stepOf(document, "library-dependencies")["outcome"] == "ok";
    const bool loads =
        stepOf(document, "library-loads")["text"] == "it does not export C_GetFunctionList";
    EXPECT_EQ(found, loads) << document.dump(1);
}

TEST_F(CheckLibrary, InModernWithADependencyBesideIt)
{
    const auto library = copy(oddLibrary(L"needs_dependency.dll"), "needs_dependency.dll");
    const auto dependency = copy(oddLibrary(L"odd_dependency.dll"), "odd_dependency.dll");
    Json document = checkModern(library);
    EXPECT_EQ(stepOf(document, "library-dependencies")["outcome"], "ok")
        << stepOf(document, "library-dependencies");
    EXPECT_EQ(stepOf(document, "library-loads")["text"], "it does not export C_GetFunctionList");

    remove(dependency);
    document = checkModern(library);
    expectFailed(document, "library-dependencies",
                 "required DLLs were not found: odd_dependency.dll", "PATH is not searched");
    expectFailed(document, "library-loads",
                 "the system cannot load it: ", "the library's documentation");
}

// The check agrees with the provider, which does not look into PATH.
TEST_F(CheckLibrary, InModernWithADependencyInPath)
{
    const auto library = copy(oddLibrary(L"needs_dependency.dll"), "needs_dependency.dll");
    const auto dependency = copy(oddLibrary(L"odd_dependency.dll"), "lib/odd_dependency.dll");
    const ChildOptions options{.environment = {{L"PATH", dependency.parent_path().wstring()}}};
    const Json document = checkModern(library, options);
    expectFailed(document, "library-dependencies", "odd_dependency.dll", "PATH is not searched");
    expectFailed(document, "library-loads",
                 "the system cannot load it: ", "the library's documentation");
}

TEST_F(CheckLibrary, WithoutGetFunctionList)
{
    expectFailed(check(widePathBesideTest(L"not_pkcs11.dll")), "library-loads",
                 "it does not export C_GetFunctionList", "This is not a PKCS#11 library");
}

TEST_F(CheckLibrary, WhoseGetFunctionListRefuses)
{
    expectFailed(check(oddLibrary(L"no_function_list.dll")), "library-loads",
                 "its C_GetFunctionList returns no list", "log");
}

TEST_F(CheckLibrary, WithFewExports)
{
    const Json document = check(widePathBesideTest(L"partial_exports.dll"));
    const Json step = stepOf(document, "function-list");
    EXPECT_EQ(step["outcome"], "warning");
    EXPECT_EQ(step["text"], "does not match the library's exports; the provider uses the exports, "
                            "and 63 of 68 are missing");
    EXPECT_NE(step["advice"].get<std::string>().find("complete library"), std::string::npos);
    // It has no slots either.
    EXPECT_EQ(stepOf(document, "slots")["text"], "no slot contains a token");
}

TEST_F(CheckLibrary, BehindANameThatIsNotAscii)
{
    const auto library = folder.path() / L"t\u00f6ken.dll";
    copy_file(ScriptedToken::widePath(), library);
    // The configuration is UTF-8.
    const auto utf8 = library.u8string();
    profile.writeConfig("p11File=" + std::string(utf8.begin(), utf8.end()) + "\nlogRotate=7\n");
    expectFailed(profile.json({"check"}, 1), "library-file", "characters outside ASCII",
                 "only ASCII characters");
}

TEST_F(CheckLibrary, InModernBehindAnyName)
{
    const auto library = folder.path() / L"t\u00f6ken \u65E5.dll";
    copy_file(ScriptedToken::widePath(), library);
    const Json document = checkModern(library);
    for (const char* name :
         {"library-file", "library-dependencies", "library-loads", "function-list", "slots"})
        EXPECT_EQ(stepOf(document, name)["outcome"], "ok") << document.dump(1);
}

TEST_F(CheckLibrary, InModernWithoutAFullPath)
{
    const auto old = std::filesystem::current_path();
    current_path(folder.path());
    std::filesystem::copy_file(ScriptedToken::widePath(), "odd.dll");
    const Json document = checkModern("odd.dll");
    current_path(old);
    expectFailed(document, "library-file", "is not a full path, so the provider does not load it",
                 "a drive and a folder");
}

TEST_F(CheckLibrary, WithoutAFullPath)
{
    profile.writeConfig("p11File=scripted_token.dll\nlogRotate=7\n");
    const Json step = stepOf(profile.json({"check"}, 1), "library-file");
    // Whether the file exists depends on the working folder.
    EXPECT_TRUE(step["outcome"] == "warning" || step["outcome"] == "failed") << step;
    EXPECT_FALSE(step["advice"].get<std::string>().empty());
}

}  // namespace

}  // namespace NV::test
