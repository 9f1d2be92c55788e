// Reading whole files. On the command line "-" stands for standard input.

#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "base/encoding.h"
#include "base/secret.h"

namespace NV::tool {

// Whether the name on the command line stands for standard input or output.
bool isStandardStream(std::string_view name);

// What messages call an input: its name, or "standard input" for "-".
std::string inputName(const std::string& name);

// A file, or standard input for "-", for reading in pieces, byte for byte.
class InputFile {
public:
    // `name` is UTF-8. Throws Failure when the file cannot be read.
    explicit InputFile(const std::string& name);
    ~InputFile();
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    // In bytes; 0 if it is not known.
    uintmax_t size() const { return size_; }

    // Goes on reading there, in bytes from the beginning. For files only. Throws Failure.
    void skipTo(uint64_t position);

    // At most `room` bytes; 0 at the end. Throws Failure.
    size_t read(unsigned char* buffer, size_t room);

private:
    std::string name_;
    void* handle_;
    uintmax_t size_ = 0;
};

// A whole file or standard input. Throws Failure when it cannot be read.
Bytes readInput(const std::string& name);
// The same for a secret: no copy of it stays in memory.
SecretBytes readSecretInput(const std::string& name);

// Standard input can be read only once. Throws CLI::ValidationError for `option` if "-" is more than
// one of the names.
void requireOneStandardInput(const std::string& option, const std::vector<std::string>& names);

// Opens a file for reading in pieces. Throws Failure when the file cannot be read.
std::ifstream openFile(const std::filesystem::path& file);

// Throws Failure when the file cannot be read.
Bytes readFile(const std::filesystem::path& file);

}  // namespace NV::tool
