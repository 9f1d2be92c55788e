// What a Windows image says of itself without being loaded: for which processor it is, and which
// DLLs it needs. The format is Microsoft's "PE Format".

#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace NV::tool {

inline constexpr uint16_t machineAmd64 = 0x8664;
inline constexpr uint16_t machineI386 = 0x014C;
inline constexpr uint16_t machineArm64 = 0xAA64;

struct PeFile {
    uint16_t machine = 0;
    std::vector<std::string> imports;  // names of DLLs, as they stand
};

// Nothing for a file that is no such image. A broken import table gives the names before the break.
// Throws Failure when the file cannot be read.
std::optional<PeFile> readPeFile(const std::filesystem::path& file);

}  // namespace NV::tool
