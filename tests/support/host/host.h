// The Linux host as seen from a test that runs under Wine: commands, the Unix environment, and
// paths. For all tests that need OpenSSL's or SoftHSM2's tools. All texts are UTF-8. Everything
// here throws std::runtime_error when the host cannot be reached.

#pragma once

#include <filesystem>
#include <string>

namespace NV::test::host {

struct Output {
    int exitCode;
    std::string text;  // standard output, byte for byte
};

// Runs /bin/sh -c command and waits. Answers the exit code (128 and more: ended by a signal).
int run(const std::string& command);
Output runOutput(const std::string& command);

// The text as one word of a shell command.
std::string quoted(const std::string& text);

// The environment that native libraries in this process and commands see.
void setEnvironment(const std::string& name, const std::string& value);
void removeEnvironment(const std::string& name);

// Paths need not exist.
std::string unixPath(const std::filesystem::path& windowsPath);
std::filesystem::path windowsPath(const std::string& unixPath);

// A DLL of the build's winelib folder, to be given to LoadLibraryW: winelibPath("p11bridge.dll").
std::filesystem::path winelibPath(const std::string& fileName);

// A new folder that is removed with its content at the end of the object's life.
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
