// The module's import table and section headers, the search, and the block that is used again.

#include "module_memory.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <utility>

namespace NV::test {

namespace {

ModuleMemory* watching = nullptr;

// Filled, so that what an earlier owner left in the memory is not taken for the module's.
void* watchedMalloc(size_t size)
{
    void* block = ModuleMemory::takeKept(size);
    if (block == nullptr)
        block = std::malloc(size);
    if (block != nullptr)
        std::memset(block, 0xCD, size);
    ModuleMemory::taken(block);
    return block;
}

void* watchedCalloc(size_t count, size_t size)
{
    void* block = std::calloc(count, size);
    ModuleMemory::taken(block);
    return block;
}

// May move the block and release the old place unseen, so it counts as a release.
void* watchedRealloc(void* block, size_t size)
{
    ModuleMemory::given(block);
    void* moved = std::realloc(block, size);
    ModuleMemory::taken(moved != nullptr ? moved : block);
    return moved;
}

void watchedFree(void* block)
{
    ModuleMemory::given(block);
    if (!ModuleMemory::keep(block))
        std::free(block);
}

char* watchedStrdup(const char* text)
{
    char* copy = _strdup(text);
    ModuleMemory::taken(copy);
    return copy;
}

template <typename Function>
void* address(Function* function)
{
    return reinterpret_cast<void*>(function);
}

struct Replacement {
    std::string_view name;
    void* function;
};

const Replacement replacements[] = {{"malloc", address(watchedMalloc)},
                                    {"calloc", address(watchedCalloc)},
                                    {"realloc", address(watchedRealloc)},
                                    {"free", address(watchedFree)},
                                    {"_strdup", address(watchedStrdup)}};

// False if the entry cannot be written.
bool replaceEntry(void** entry, void* function)
{
    DWORD protection = 0;
    if (VirtualProtect(entry, sizeof *entry, PAGE_READWRITE, &protection) == 0)
        return false;
    *entry = function;
    VirtualProtect(entry, sizeof *entry, protection, &protection);
    return true;
}

template <typename T>
T* at(unsigned char* base, size_t offset)
{
    return reinterpret_cast<T*>(base + offset);
}

const IMAGE_NT_HEADERS64* headersOf(unsigned char* base)
{
    return at<IMAGE_NT_HEADERS64>(base,
                                  static_cast<size_t>(at<IMAGE_DOS_HEADER>(base, 0)->e_lfanew));
}

}  // namespace

ModuleMemory::ModuleMemory(HMODULE module)
{
    auto* base = reinterpret_cast<unsigned char*>(module);
    const auto* headers = headersOf(base);
    // They follow the headers.
    const auto* section = at<IMAGE_SECTION_HEADER>(
        base, static_cast<size_t>(at<IMAGE_DOS_HEADER>(base, 0)->e_lfanew) +
                  offsetof(IMAGE_NT_HEADERS64, OptionalHeader) +
                  headers->FileHeader.SizeOfOptionalHeader);
    for (int i = 0; i < headers->FileHeader.NumberOfSections; ++i, ++section) {
        if ((section->Characteristics & IMAGE_SCN_MEM_WRITE) != 0)
            sections_.emplace_back(base + section->VirtualAddress, section->Misc.VirtualSize);
    }
    watching = this;
    redirect(base);
    // Whatever heap functions the module uses some day must be watched, too.
    if (imports_.size() != std::size(replacements))
        throw std::runtime_error("the module's heap functions are not those that are known here");
}

ModuleMemory::~ModuleMemory()
{
    for (const Import& import : imports_) {
        // The module would go on calling functions that have nothing to watch for.
        if (!replaceEntry(import.entry, import.original))
            std::terminate();
    }
    watching = nullptr;
    if (kept_)
        std::free(usedAgain_);
}

void ModuleMemory::redirect(unsigned char* base)
{
    const auto* headers =
        at<IMAGE_NT_HEADERS64>(base, static_cast<DWORD>(at<IMAGE_DOS_HEADER>(base, 0)->e_lfanew));
    const auto& directory = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    for (auto* library = at<IMAGE_IMPORT_DESCRIPTOR>(base, directory.VirtualAddress);
         library->Name != 0; ++library) {
        const auto* name = at<IMAGE_THUNK_DATA64>(base, library->OriginalFirstThunk);
        auto* entry = at<void*>(base, library->FirstThunk);
        for (; name->u1.AddressOfData != 0; ++name, ++entry) {
            if (IMAGE_SNAP_BY_ORDINAL64(name->u1.Ordinal))
                continue;
            const size_t offset = name->u1.AddressOfData;
            const char* function = at<IMAGE_IMPORT_BY_NAME>(base, offset)->Name;
            const std::string_view text = function;
            if (text.starts_with("Heap") || text.starts_with("LocalAlloc") ||
                text.starts_with("GlobalAlloc") || text.starts_with("VirtualAlloc"))
                throw std::runtime_error("the module uses a heap that is not watched: " +
                                         std::string(text));
            const auto* found = std::ranges::find(replacements, text, &Replacement::name);
            if (found == std::end(replacements))
                continue;
            imports_.push_back({entry, *entry});
            if (!replaceEntry(entry, found->function))
                throw std::runtime_error("the import table cannot be written");
        }
    }
}

void ModuleMemory::taken(void* block)
{
    if (watching == nullptr || block == nullptr)
        return;
    const std::lock_guard guard(watching->lock_);
    watching->held_.insert(block);
}

void ModuleMemory::given(void* block)
{
    if (watching == nullptr || block == nullptr)
        return;
    const std::lock_guard guard(watching->lock_);
    ++watching->released_;
    watching->held_.erase(block);
    watching->search({static_cast<unsigned char*>(block), _msize(block)}, "a released block");
}

void ModuleMemory::useAgain(void* block)
{
    const std::lock_guard guard(lock_);
    usedAgain_ = block;
}

bool ModuleMemory::keep(void* block)
{
    if (watching == nullptr || block == nullptr)
        return false;
    const std::lock_guard guard(watching->lock_);
    if (block != watching->usedAgain_)
        return false;
    watching->kept_ = true;
    return true;
}

void* ModuleMemory::takeKept(size_t size)
{
    if (watching == nullptr)
        return nullptr;
    const std::lock_guard guard(watching->lock_);
    if (!watching->kept_ || _msize(watching->usedAgain_) != size)
        return nullptr;
    watching->kept_ = false;
    return watching->usedAgain_;
}

void ModuleMemory::lookFor(const std::string& name, std::string_view bytes)
{
    const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
    lookFor(name, std::span(data, bytes.size()));
}

void ModuleMemory::lookFor(const std::string& name, std::span<const unsigned char> bytes)
{
    const std::lock_guard guard(lock_);
    needles_.push_back({name, {bytes.begin(), bytes.end()}});
}

void ModuleMemory::forget()
{
    const std::lock_guard guard(lock_);
    needles_.clear();
    findings_.clear();
    released_ = 0;
}

void ModuleMemory::search(std::span<const unsigned char> bytes, const std::string& where)
{
    for (const Needle& needle : needles_) {
        if (std::search(bytes.begin(), bytes.end(), needle.bytes.begin(), needle.bytes.end()) !=
            bytes.end())
            findings_.insert(needle.name + " in " + where);
    }
}

std::string ModuleMemory::takeFindings()
{
    std::string text;
    for (const std::string& finding : std::exchange(findings_, {}))
        text += finding + "\n";
    return text;
}

std::string ModuleMemory::found()
{
    const std::lock_guard guard(lock_);
    for (void* block : held_)
        search({static_cast<unsigned char*>(block), _msize(block)}, "a block still held");
    for (const auto& section : sections_)
        search(section, "a section");
    return takeFindings();
}

std::string ModuleMemory::foundReleased()
{
    const std::lock_guard guard(lock_);
    for (const auto& section : sections_)
        search(section, "a section");
    return takeFindings();
}

}  // namespace NV::test
