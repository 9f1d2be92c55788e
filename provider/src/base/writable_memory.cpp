// Changing the protection of pages.

#include "base/writable_memory.h"

#include <cstdint>

namespace NV {

namespace {

constexpr DWORD writableProtections =
    PAGE_READWRITE | PAGE_WRITECOPY | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;
constexpr DWORD executableProtections = PAGE_EXECUTE | PAGE_EXECUTE_READ;

}  // namespace

WritableMemory::WritableMemory(void* block, size_t size)
{
    pages_[0].address = block;
    pages_[1].address = static_cast<std::byte*>(block) + size - 1;
    for (Page& page : pages_)
        writable_ = writable_ && open(page);
}

WritableMemory::~WritableMemory()
{
    for (const Page& page : pages_) {
        DWORD ignored = 0;
        if (page.protection != 0)
            VirtualProtect(page.address, 1, page.protection, &ignored);
    }
}

// The protection covers the whole page of an address, so the second page needs nothing when it is
// the first one.
bool WritableMemory::open(Page& page)
{
    MEMORY_BASIC_INFORMATION information;
    if (VirtualQuery(page.address, &information, sizeof information) == 0)
        return false;
    if ((information.Protect & writableProtections) != 0)
        return true;
    // Another thread may run code of the page meanwhile.
    const bool executable = (information.Protect & executableProtections) != 0;
    return VirtualProtect(page.address, 1, executable ? PAGE_EXECUTE_READWRITE : PAGE_READWRITE,
                          &page.protection) != 0;
}

}  // namespace NV
