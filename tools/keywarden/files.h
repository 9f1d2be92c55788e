// Reading and writing whole files.

#pragma once

#include <filesystem>
#include <fstream>

#include "base/encoding.h"

namespace NV::tool {

// Opens a file for reading in pieces. Throws Failure when the file cannot be read.
std::ifstream openFile(const std::filesystem::path& file);

// Throws Failure when the file cannot be read.
Bytes readFile(const std::filesystem::path& file);

// Replaces an existing file. Throws Failure when the file cannot be written; an incomplete file is
// removed.
void writeFile(const std::filesystem::path& file, const Bytes& data);

}  // namespace NV::tool
