// Reads the headers of an image. All offsets come from the file, so each is checked before use.

#include "formats/pe_file.h"

#include <windows.h>

#include <algorithm>
#include <cstring>
#include <span>

#include "files.h"

namespace NV::tool {

namespace {

constexpr size_t maxImports = 4096;

class Image {
public:
    explicit Image(const Bytes& bytes) : bytes_(bytes) {}

    // Empty if the structure does not fit before the end of the file.
    template <typename Structure>
    std::optional<Structure> at(uint64_t offset) const
    {
        if (offset > bytes_.size() || bytes_.size() - offset < sizeof(Structure))
            return std::nullopt;
        Structure structure{};
        std::memcpy(&structure, bytes_.data() + offset, sizeof structure);
        return structure;
    }

    // The text up to its terminator or the end of the file.
    std::string textAt(uint64_t offset) const
    {
        if (offset >= bytes_.size())
            return {};
        const auto rest = bytes_.subspan(static_cast<size_t>(offset));
        return {rest.begin(), std::ranges::find(rest, 0)};
    }

private:
    std::span<const unsigned char> bytes_;
};

// The position in the file of an address of the loaded image.
std::optional<uint64_t> fileOffset(const std::vector<IMAGE_SECTION_HEADER>& sections,
                                   uint32_t address)
{
    for (const IMAGE_SECTION_HEADER& section : sections) {
        if (address >= section.VirtualAddress &&
            address - section.VirtualAddress < section.SizeOfRawData)
            return uint64_t{section.PointerToRawData} + (address - section.VirtualAddress);
    }
    return std::nullopt;
}

std::vector<std::string> importsOf(const Image& image,
                                   const std::vector<IMAGE_SECTION_HEADER>& sections,
                                   uint32_t tableAddress)
{
    std::vector<std::string> names;
    const auto table = fileOffset(sections, tableAddress);
    for (size_t i = 0; table && i < maxImports; ++i) {
        const auto row =
            image.at<IMAGE_IMPORT_DESCRIPTOR>(*table + i * sizeof(IMAGE_IMPORT_DESCRIPTOR));
        if (!row || row->Name == 0)
            break;
        const auto name = fileOffset(sections, row->Name);
        if (!name)
            break;
        names.push_back(image.textAt(*name));
    }
    return names;
}

}  // namespace

std::optional<PeFile> readPeFile(const std::filesystem::path& file)
{
    const Bytes bytes = readFile(file);
    const Image image(bytes);
    const auto dos = image.at<IMAGE_DOS_HEADER>(0);
    if (!dos || dos->e_magic != IMAGE_DOS_SIGNATURE || dos->e_lfanew < 0)
        return std::nullopt;
    const auto begin = static_cast<uint64_t>(dos->e_lfanew);
    const auto signature = image.at<DWORD>(begin);
    const auto header = image.at<IMAGE_FILE_HEADER>(begin + sizeof(DWORD));
    if (!signature || *signature != IMAGE_NT_SIGNATURE || !header)
        return std::nullopt;
    PeFile result;
    result.machine = header->Machine;
    const uint64_t optionalAt = begin + sizeof(DWORD) + sizeof(IMAGE_FILE_HEADER);
    const auto optionalHeader = image.at<IMAGE_OPTIONAL_HEADER64>(optionalAt);
    // Imports matter only for an image that this system can load.
    if (header->Machine != machineAmd64 || !optionalHeader)
        return result;
    std::vector<IMAGE_SECTION_HEADER> sections;
    for (size_t i = 0; i < header->NumberOfSections; ++i) {
        const auto section = image.at<IMAGE_SECTION_HEADER>(
            optionalAt + header->SizeOfOptionalHeader + i * sizeof(IMAGE_SECTION_HEADER));
        if (!section)
            break;
        sections.push_back(*section);
    }
    result.imports =
        importsOf(image, sections,
                  optionalHeader->DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress);
    return result;
}

}  // namespace NV::tool
