// Reads from a Windows image, without loading it, its processor and the DLLs that it needs. The format
// is Microsoft's "PE Format".

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
    std::vector<std::string> imports;  // names of DLLs, as in the file
};

// Empty for a file that is not an image. A damaged import table gives the names before the damage.
// Throws Failure when the file cannot be read.
std::optional<PeFile> readPeFile(const std::filesystem::path& file);

}  // namespace NV::tool
