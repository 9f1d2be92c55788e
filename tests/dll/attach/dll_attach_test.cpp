// Loading and unloading the module, and loads that fail.

#include <gtest/gtest.h>

#include <unwind.h>
#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <string>
#include <thread>
#include <typeinfo>

#include "attach_child.h"
#include "folder.h"
#include "profile.h"
#include "provider_module.h"

namespace NV::test {

namespace {

constexpr char goodConfiguration[] = "logLevel=TRACE\nlogTypes=FILE\n"
                                     "logStore=~\\.norvanta-keywarden\\logs\nlogRotate=7\n";
constexpr char attachAndDetach[] = "TRC DllMain:Received : DLL_PROCESS_ATTACH\n"
                                   "TRC DllMain:Received : DLL_PROCESS_DETACH\n";

// The code under which this compiler's library raises its exceptions.
constexpr DWORD gccException = 0x20474343;

// The last exception that was thrown.
std::string lastThrown;

// The loader swallows the exception; before that, everyone is asked. A thrown object stands
// directly behind its header.
LONG CALLBACK rememberException(EXCEPTION_POINTERS* pointers)
{
    const EXCEPTION_RECORD& record = *pointers->ExceptionRecord;
    if (record.ExceptionCode == gccException && record.NumberParameters > 0) {
        const auto* header =
            reinterpret_cast<const _Unwind_Exception*>(record.ExceptionInformation[0]);
        const auto* error = reinterpret_cast<const std::exception*>(header + 1);
        lastThrown = std::string(typeid(*error).name()) + ": " + error->what();
    }
    return EXCEPTION_CONTINUE_SEARCH;
}

void tryToLoad()
{
    lastThrown.clear();
    HMODULE module = LoadLibraryW(ProviderModule::defaultPath().c_str());
    if (module != nullptr) {
        std::cout << "loaded" << std::endl;
        FreeLibrary(module);
        return;
    }
    std::cout << "failed " << std::hex << GetLastError() << " " << lastThrown << std::endl;
}

}  // namespace

NV_TEST_CHILD(loadAndUnload)
{
    const ProviderModule module;
    return 0;
}

NV_TEST_CHILD(loadTwice)
{
    AddVectoredExceptionHandler(1, &rememberException);
    tryToLoad();
    const char* profile = std::getenv("USERPROFILE");
    if (!arguments.empty() && profile != nullptr) {
        const auto folder = std::filesystem::path(profile) / ".norvanta-keywarden";
        writeFile(folder / "nvksprovider.conf", arguments.front());
    }
    tryToLoad();
    return 0;
}

namespace {

class Attach : public testing::Test {
protected:
    // The lines that a process writes which tries with the configuration as it is, and again with
    // a good one. Whatever happened before, the second load works and leaves its lines.
    std::string outcome()
    {
        const ChildResult result = runChild("loadTwice", {.arguments = {goodConfiguration}});
        EXPECT_EQ(result.exitCode, 0u);
        EXPECT_FALSE(result.timedOut);
        std::string output = result.output;
        std::erase(output, '\r');
        const std::string second = "loaded\n";
        EXPECT_TRUE(output.ends_with(second)) << output;
        output.resize(output.size() - std::min(output.size(), second.size()));
        expectBlock(withoutBanner(profile_.log()), attachAndDetach);
        return output;
    }

    void expectFailure(const std::string& type, const std::string& text)
    {
        EXPECT_EQ(outcome(), "failed 20474343 " + type + ": " + text + "\n");
    }

    Profile profile_;
};

TEST_F(Attach, WritesALineAtTheBeginningAndAtTheEnd)
{
    profile_.writeConfig(goodConfiguration);
    {
        const ProviderModule module;
        expectBlock(withoutBanner(profile_.log()), "TRC DllMain:Received : DLL_PROCESS_ATTACH");
    }
    const LogLines lines = withoutBanner(profile_.log());
    expectBlock(lines, attachAndDetach);
    EXPECT_EQ(lines.front().file, "dll_attach.cpp");
}

TEST_F(Attach, WritesTheLastLineWhenTheProcessEnds)
{
    profile_.writeConfig(goodConfiguration);
    EXPECT_EQ(runChild("loadAndUnload").exitCode, 0u);
    expectBlock(withoutBanner(profile_.log()), attachAndDetach);
}

TEST_F(Attach, WorksAgainAfterUnloading)
{
    profile_.writeConfig(goodConfiguration);
    for (int i = 0; i < 3; ++i)
        const ProviderModule module;
    const LogLines lines = profile_.log();
    expectBlock(withoutBanner(lines),
                std::string(attachAndDetach) + attachAndDetach + attachAndDetach);
    // Each load is a new beginning, banner included.
    EXPECT_EQ(countLines(lines, "INF LOGGER():STARTED"), 3u);
}

TEST_F(Attach, ASecondReferenceDoesNotAttachAgain)
{
    profile_.writeConfig(goodConfiguration);
    {
        const ProviderModule first;
        const ProviderModule second;
        EXPECT_EQ(first.operator->(), second.operator->());
    }
    expectBlock(withoutBanner(profile_.log()), attachAndDetach);
}

TEST_F(Attach, ThreadsAreNotReported)
{
    profile_.writeConfig(goodConfiguration);
    {
        const ProviderModule module;
        for (int i = 0; i < 5; ++i)
            std::thread([] {}).join();
    }
    expectBlock(withoutBanner(profile_.log()), attachAndDetach);
}

// The configuration is read once.
TEST_F(Attach, LaterChangesOfTheFileDoNotMatter)
{
    profile_.writeConfig(goodConfiguration);
    {
        const ProviderModule module;
        profile_.writeConfig("logTypes=\nlogRotate=\nno line\n");
    }
    expectBlock(withoutBanner(profile_.log()), attachAndDetach);
}

// Loads that fail: the error reaches the loader, the process lives on, nothing is logged, and when
// the cause is fixed the next load works.

TEST_F(Attach, FailsWithoutAConfigurationFile)
{
    std::filesystem::create_directories(profile_.configFile().parent_path());
    expectFailure("St13runtime_error", "Cannot open file: " + profile_.narrow() +
                                           "\\.norvanta-keywarden\\nvksprovider.conf");
}

TEST_F(Attach, FailsWithAFolderInTheFilesPlace)
{
    std::filesystem::create_directories(profile_.configFile());
    const ChildResult result = runChild("loadTwice");
    std::string output = result.output;
    std::erase(output, '\r');
    const std::string line =
        "failed 20474343 St13runtime_error: Cannot open file: " + profile_.narrow() +
        "\\.norvanta-keywarden\\nvksprovider.conf\n";
    EXPECT_EQ(output, line + line);
}

TEST_F(Attach, FailsWithoutAProfile)
{
    profile_.writeConfig(goodConfiguration);
    const ChildResult result =
        runChild("loadTwice", {.environment = {{L"USERPROFILE", std::nullopt}}});
    EXPECT_EQ(result.exitCode, 0u);
    std::string output = result.output;
    std::erase(output, '\r');
    const std::string line = "failed 20474343 St13runtime_error: Cannot open file: "
                             "\\.norvanta-keywarden\\nvksprovider.conf\n";
    EXPECT_EQ(output, line + line);
}

TEST_F(Attach, FailsWithALineWithoutEqualSign)
{
    profile_.writeConfig("logLevel=TRACE\nlogTypes FILE\n");
    expectFailure("St13runtime_error", "Invalid line: logTypes FILE");
}

TEST_F(Attach, FailsWithALineOfSpaces)
{
    profile_.writeConfig("logLevel=TRACE\n   \n");
    expectFailure("St13runtime_error", "Invalid line:    ");
}

TEST_F(Attach, FailsWithoutARotation)
{
    profile_.writeConfig("logTypes=FILE\nlogStore=~\\.norvanta-keywarden\\logs\n");
    expectFailure("St16invalid_argument", "invalid stoi argument");
}

TEST_F(Attach, FailsWithAnEmptyRotation)
{
    profile_.writeConfig("logTypes=FILE\nlogStore=~\\.norvanta-keywarden\\logs\nlogRotate=\n");
    expectFailure("St16invalid_argument", "invalid stoi argument");
}

TEST_F(Attach, FailsWithARotationPast32Bits)
{
    profile_.writeConfig("logTypes=FILE\nlogStore=~\\.norvanta-keywarden\\logs\n"
                         "logRotate=2147483648\n");
    expectFailure("St12out_of_range", "stoi argument out of range");
}

TEST_F(Attach, FailsWithAnEmptyFile)
{
    profile_.writeConfig("");
    expectFailure("St16invalid_argument", "invalid stoi argument");
}

TEST_F(Attach, FailsWhenTheLogFolderCannotBeMade)
{
    writeFile(profile_.path() / "blocked", "a file");
    profile_.writeConfig("logTypes=FILE\nlogStore=~\\blocked\nlogRotate=7\n");
    const std::string line = outcome();
    EXPECT_TRUE(line.starts_with("failed 20474343 ")) << line;
    EXPECT_NE(line.find("filesystem_error"), std::string::npos) << line;
    EXPECT_NE(line.find("directory_iterator::directory_iterator"), std::string::npos) << line;
}

}  // namespace

}  // namespace NV::test
