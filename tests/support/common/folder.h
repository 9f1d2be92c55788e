// A folder of a test's own, and whole files as text. Portable; used by nearly all tests.

#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace NV::test {

// A new, empty folder below the system's temporary folder, with a name that no other test has. It
// is removed with all its content at the end of the object's life.
class TemporaryFolder {
public:
    TemporaryFolder();
    // The folder is `name` below the new one; `name` may hold characters outside ASCII.
    explicit TemporaryFolder(const std::filesystem::path& name);
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder();

    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path root_;
    std::filesystem::path path_;
};

// The whole file, byte for byte. Throws std::runtime_error when it cannot be read.
std::string readFile(const std::filesystem::path& file);

// Replaces the file by these bytes; makes the folders above it. Throws std::runtime_error.
void writeFile(const std::filesystem::path& file, std::string_view content);

// The names of the folder's entries, sorted.
std::vector<std::string> entryNames(const std::filesystem::path& folder);

// The path as narrow functions of the C library take it: in the ANSI code page on Windows. Throws
// std::runtime_error when a character has no place in it.
std::string narrowPath(const std::filesystem::path& path);

}  // namespace NV::test
