// The Linux host for tests that run under Wine: commands, the Unix environment, and paths. For
// tests that need the tools of OpenSSL or SoftHSM2. All texts are UTF-8. All functions throw
// std::runtime_error when they cannot reach the host.

#pragma once

#include <filesystem>
#include <string>

namespace NV::test::host {

struct Output {
    int exitCode;
    std::string text;  // standard output, byte for byte
};

// Runs /bin/sh -c command and waits. Returns the exit code (128 and more: ended by a signal).
int run(const std::string& command);
Output runOutput(const std::string& command);

// The text, quoted as one word of a shell command.
std::string quoted(const std::string& text);

// The environment of commands and of native libraries in this process.
void setEnvironment(const std::string& name, const std::string& value);
void removeEnvironment(const std::string& name);

// Paths need not exist.
std::string unixPath(const std::filesystem::path& windowsPath);
std::filesystem::path windowsPath(const std::string& unixPath);

// The path of a DLL in the build's winelib folder, for LoadLibraryW: winelibPath("p11bridge.dll").
std::filesystem::path winelibPath(const std::string& fileName);

// A new folder; the destructor removes it with its content.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();

    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::filesystem::path& path() const;  // as Windows code names it
    std::string unixPath() const;

private:
    std::filesystem::path path_;
};

}  // namespace NV::test::host
