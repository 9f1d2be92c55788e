// What the attach handler does in each behaviour: signal handlers (M30), common controls (M29), and the
// machine's configuration file. Of Windows alone.

#include <windows.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "base/text.h"
#include "child.h"
#include "folder.h"
#include "module_fixture.h"

namespace NV::test {
namespace {

constexpr int signals[] = {SIGINT, SIGABRT, SIGSEGV, SIGILL, SIGTERM};
constexpr char files[] = "logLevel=TRACE\nlogTypes=FILE\nlogStore=~\\logs\nlogRotate=7\n";

using Handler = void (*)(int);

void ownHandler(int) {}

void setHandler(int signal, Handler handler)
{
    if (std::signal(signal, handler) == SIG_ERR)
        throw std::runtime_error("a signal cannot be handled");
}

// How many of the program's handlers the module has replaced.
size_t replacedHandlers()
{
    size_t replaced = 0;
    for (const int signal : signals) {
        const Handler current = std::signal(signal, SIG_DFL);
        setHandler(signal, current);
        replaced += current != &ownHandler ? 1U : 0U;
    }
    return replaced;
}

}  // namespace

// Prints how many handlers are the module's while it is loaded, and afterwards.
NV_TEST_CHILD(countSignalHandlers)
{
    for (const int signal : signals)
        setHandler(signal, &ownHandler);
    {
        const ProviderModule module;
        std::cout << replacedHandlers() << " ";
    }
    std::cout << replacedHandlers();
    return 0;
}

NV_TEST_CHILD(crash)
{
    const ProviderModule module;
    // A program that handles its own crash.
    setHandler(SIGSEGV, [](int) { std::_Exit(77); });
    std::raise(SIGSEGV);
    return 0;
}

NV_TEST_CHILD(abortHost)
{
    const ProviderModule module;
    std::raise(SIGTERM);
    return 0;
}

// A copy of the module that imports the controls from cntctl32.dll, which is already loaded. Prints
// how often attaching has initialized them.
NV_TEST_CHILD(countControls)
{
    const HMODULE controls = LoadLibraryW(NV_COUNTED_CONTROLS);
    if (controls == nullptr)
        return 1;
    const auto count = reinterpret_cast<int (*)()>(
        reinterpret_cast<void*>(GetProcAddress(controls, "CountedControls")));
    const ProviderModule module(std::filesystem::path(arguments.at(0)));
    std::cout << count();
    // cppcheck-suppress resourceLeak ; the process ends with it
    return 0;
}

// Loads the module beside the file that is given, and opens nothing.
NV_TEST_CHILD(loadModuleAt)
{
    const ProviderModule module(std::filesystem::path(arguments.at(0)));
    std::cout << "loaded";
    return 0;
}

namespace {

class Attaching : public testing::Test {
protected:
    std::string child(const std::string& work, const std::string& configuration,
                      const std::vector<std::string>& arguments = {})
    {
        profile.writeConfig(configuration);
        const ChildResult result = runChild(work, {.arguments = arguments});
        return result.output + " " + std::to_string(result.exitCode);
    }

    Profile profile;
};

TEST_F(Attaching, installsNoSignalHandlers)
{
    EXPECT_EQ("0 0 0", child("countSignalHandlers", "mode=modern\n"));
    EXPECT_EQ("5 0 0", child("countSignalHandlers", "logRotate=7\n"));
    EXPECT_EQ("5 0 0", child("countSignalHandlers", "mode=Modern\nlogRotate=7\n"));
}

TEST_F(Attaching, leavesASignalToTheProgram)
{
    EXPECT_EQ(" 77", child("crash", "mode=modern\n"));
    EXPECT_EQ("Caught signal 15\r\n 15", child("abortHost", "logRotate=7\n"));
    // The C runtime's own end of a process by a signal.
    EXPECT_EQ(" 3", child("abortHost", "mode=modern\n"));
}

TEST_F(Attaching, initializesNoControls)
{
    std::string module = readFile(ProviderModule::defaultPath());
    constexpr std::string_view system = "COMCTL32.DLL";
    const auto name = std::search(module.begin(), module.end(), system.begin(), system.end(),
                                  [](char c, char capital) {
                                      return c == capital || (c >= 'a' && c - 'a' + 'A' == capital);
                                  });
    ASSERT_TRUE(name != module.end());
    std::ranges::copy(std::string_view("cntctl32.dll"), name);
    const TemporaryFolder folder;
    writeFile(folder.path() / "nvksprovider.dll", module);
    const std::vector<std::string> file = {narrowPath(folder.path() / "nvksprovider.dll")};
    EXPECT_EQ("0 0", child("countControls", "mode=modern\n", file));
    EXPECT_EQ("1 0", child("countControls", "logRotate=7\n", file));
}

// The module in a folder of its own, with a file of the machine beside it.
class MachineWide : public testing::Test {
protected:
    MachineWide() { copy_file(ProviderModule::defaultPath(), module_); }

    void writeMachine(const std::string& text) const
    {
        writeFile(folder_.path() / "nvksprovider.conf", text);
    }
    std::string load() const
    {
        const ChildResult result = runChild("loadModuleAt", {.arguments = {narrowPath(module_)}});
        return result.output;
    }
    size_t records(const std::filesystem::path& store) const
    {
        return withoutBanner(readLog(profile.path() / store)).size();
    }

    Profile profile;

private:
    TemporaryFolder folder_{u8"caf\u00E9"};
    std::filesystem::path module_ = folder_.path() / "nvksprovider.dll";
};

TEST_F(MachineWide, servesAUserWithoutAFile)
{
    writeMachine(files);
    EXPECT_EQ("loaded", load());
    EXPECT_EQ(2U, records("logs"));
}

TEST_F(MachineWide, mayBeModern)
{
    writeMachine(
        "mode=modern\r\nlogTypes=FILE\r\nlogStore=\"%USERPROFILE%\\here\"\r\nlogLevel=TRACE");
    EXPECT_EQ("loaded", load());
    // Attached, whose process it is, detached.
    EXPECT_EQ(3U, records("here"));
}

// Classic has no such record; the test above it counts them.
TEST_F(MachineWide, namesProgramUserAndVersionFirst)
{
    for (const char* level : {"INFO", "TRACE"}) {
        const std::string store = std::string("at ") + level;
        writeMachine("mode=modern\nlogTypes=FILE\nlogStore=~\\" + store + "\nlogLevel=" + level +
                     "\n");
        EXPECT_EQ("loaded", load());
        const auto lines = withoutBanner(readLog(profile.path() / store));
        const size_t at = level == std::string_view("INFO") ? 0 : 1;
        ASSERT_LT(at, lines.size());
        EXPECT_EQ("INF", lines[at].level);
        EXPECT_EQ("DllMain", lines[at].function);
        wchar_t user[256];
        DWORD length = 256;
        ASSERT_TRUE(GetUserNameW(user, &length));
        wchar_t program[MAX_PATH];
        GetModuleFileNameW(nullptr, program, MAX_PATH);
        const std::string begin = "Program=" + toUtf8(std::wstring_view(program)) +
                                  ", USER=" + toUtf8(std::wstring_view(user)) + ", VERSION=";
        EXPECT_TRUE(lines[at].message.starts_with(begin + "0.")) << lines[at].message;
        // Warnings and errors stay alone at their levels.
        EXPECT_EQ(level == std::string_view("INFO") ? 1U : 3U, lines.size());
    }
    writeMachine("mode=modern\nlogTypes=FILE\nlogStore=~\\quiet\nlogLevel=WARN\n");
    EXPECT_EQ("loaded", load());
    EXPECT_EQ(0U, records("quiet"));
}

TEST_F(MachineWide, isNotReadWhenTheUserHasAFile)
{
    writeMachine(files);
    profile.writeConfig("logLevel=TRACE\nlogTypes=FILE\nlogStore=~\\mine\nlogRotate=7\n");
    EXPECT_EQ("loaded", load());
    EXPECT_EQ(2U, records("mine"));
    EXPECT_EQ(0U, records("logs"));
    // A user's file that keeps the module from loading does so.
    profile.writeConfig("nonsense\n");
    EXPECT_NE("loaded", load());
}

TEST_F(MachineWide, mustBeReadable)
{
    EXPECT_NE("loaded", load());
    writeMachine("nonsense\n");
    EXPECT_NE("loaded", load());
}

}  // namespace
}  // namespace NV::test
