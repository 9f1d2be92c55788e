// The Linux host for tests that run under Wine: the caller's side of hostrun.dll.

#include "host.h"

#include <windows.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace NV::test::host {

namespace {

[[noreturn]] void fail(const std::string& what)
{
    throw std::runtime_error{what + ", error " + std::to_string(GetLastError())};
}

// The symbol of a module as a function; FARPROC cannot be cast directly without a warning.
template <typename Function>
Function symbolOf(HMODULE module, const char* name)
{
    const FARPROC address = GetProcAddress(module, name);
    if (address == nullptr)
        fail(std::string{"no function "} + name);
    Function function = nullptr;
    static_assert(sizeof(function) == sizeof(address));
    std::memcpy(&function, &address, sizeof(function));
    return function;
}

// hostrun.dll stays loaded until the process ends.
HMODULE hostrun()
{
    static const HMODULE module = [] {
        const HMODULE loaded = LoadLibraryW(winelibPath("hostrun.dll").c_str());
        if (loaded == nullptr)
            fail("cannot load hostrun.dll");
        return loaded;
    }();
    return module;
}

struct HeapBlockDeleter {
    void operator()(void* block) const { HeapFree(GetProcessHeap(), 0, block); }
};

template <typename Text>
using HeapText = std::unique_ptr<Text, HeapBlockDeleter>;

void changeEnvironment(const char* name, const char* value)
{
    using HostSetEnv = int (*)(const char*, const char*);
    static const auto hostSetEnv = symbolOf<HostSetEnv>(hostrun(), "HostSetEnv");
    if (hostSetEnv(name, value) != 0)
        throw std::runtime_error{std::string{"cannot change the environment variable "} + name};
}

}  // namespace

int run(const std::string& command)
{
    using HostRun = int (*)(const char*);
    static const auto hostRun = symbolOf<HostRun>(hostrun(), "HostRun");
    const int exitCode = hostRun(command.c_str());
    if (exitCode < 0)
        throw std::runtime_error{"the host cannot run " + command};
    return exitCode;
}

Output runOutput(const std::string& command)
{
    const TemporaryFolder folder;
    const std::filesystem::path file = folder.path() / "output";
    // The line break completes a command that ends in a comment or a here-document.
    const int exitCode = run("{ " + command + "\n} > " + quoted(unixPath(file)));
    std::ifstream stream{file, std::ios::binary};
    if (!stream)
        throw std::runtime_error{"no output of " + command};
    std::ostringstream text;
    text << stream.rdbuf();
    return {exitCode, text.str()};
}

std::string quoted(const std::string& text)
{
    std::string result = "'";
    for (const char c : text) {
        if (c == '\'')
            result += "'\\''";
        else
            result += c;
    }
    return result + "'";
}

void setEnvironment(const std::string& name, const std::string& value)
{
    changeEnvironment(name.c_str(), value.c_str());
}

void removeEnvironment(const std::string& name)
{
    changeEnvironment(name.c_str(), nullptr);
}

// Both conversions are Wine's own, exported by its kernel32; the results are on the process heap.
std::string unixPath(const std::filesystem::path& windowsPath)
{
    using Convert = char* (*)(const wchar_t*);
    static const auto convert =
        symbolOf<Convert>(GetModuleHandleW(L"kernel32"), "wine_get_unix_file_name");
    const HeapText<char> result{convert(windowsPath.c_str())};
    if (result == nullptr)
        fail("no Unix name for " + windowsPath.string());
    return result.get();
}

std::filesystem::path windowsPath(const std::string& unixPath)
{
    using Convert = wchar_t* (*)(const char*);
    static const auto convert =
        symbolOf<Convert>(GetModuleHandleW(L"kernel32"), "wine_get_dos_file_name");
    const HeapText<wchar_t> result{convert(unixPath.c_str())};
    if (result == nullptr)
        fail("no Windows name for " + unixPath);
    return std::filesystem::path{result.get()};
}

std::filesystem::path winelibPath(const std::string& fileName)
{
    return windowsPath(NV_TEST_WINELIB "/" + fileName);
}

namespace {

std::filesystem::path freshPath()
{
    static std::atomic<unsigned> counter = 0;
    return std::filesystem::temp_directory_path() /
           ("keywarden-" + std::to_string(GetCurrentProcessId()) + "-" +
            std::to_string(GetTickCount64()) + "-" + std::to_string(++counter));
}

}  // namespace

TemporaryFolder::TemporaryFolder() : path_(freshPath())
{
    if (!std::filesystem::create_directory(path_))
        throw std::runtime_error{"cannot create " + path_.string()};
}

TemporaryFolder::~TemporaryFolder()
{
    std::error_code ignored;  // a left-over temporary file must not fail a test
    std::filesystem::remove_all(path_, ignored);
}

const std::filesystem::path& TemporaryFolder::path() const
{
    return path_;
}

std::string TemporaryFolder::unixPath() const
{
    return host::unixPath(path_);
}

}  // namespace NV::test::host
