// Pages of memory and their protection.

#include <sys/mman.h>
#include <unistd.h>
#include <windows.h>

#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>

#include "last_error.h"

namespace {

using NV::stand_in::failed;

int protectionBits(DWORD protection)
{
    switch (protection) {
    case PAGE_READONLY:
        return PROT_READ;
    case PAGE_READWRITE:
    case PAGE_WRITECOPY:
        return PROT_READ | PROT_WRITE;
    case PAGE_EXECUTE:
        return PROT_EXEC;
    case PAGE_EXECUTE_READ:
        return PROT_READ | PROT_EXEC;
    case PAGE_EXECUTE_READWRITE:
        return PROT_READ | PROT_WRITE | PROT_EXEC;
    default:
        return PROT_NONE;
    }
}

// Of letters like "r-xp".
DWORD protectionOf(const std::string& letters)
{
    const bool reads = letters[0] == 'r';
    const bool writes = letters[1] == 'w';
    if (letters[2] == 'x')
        return writes ? PAGE_EXECUTE_READWRITE : reads ? PAGE_EXECUTE_READ : PAGE_EXECUTE;
    return writes ? PAGE_READWRITE : reads ? PAGE_READONLY : PAGE_NOACCESS;
}

// The protection of the page at this address; 0 when there is none.
DWORD currentProtection(uintptr_t address)
{
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        unsigned long begin = 0;
        unsigned long end = 0;
        char dash = 0;
        std::string letters;
        std::istringstream fields(line);
        if (fields >> std::hex >> begin >> dash >> end >> letters && letters.size() == 4 &&
            address >= begin && address < end)
            return protectionOf(letters);
    }
    return 0;
}

struct Blocks {
    std::mutex lock;
    std::map<void*, size_t> sizes;
};

Blocks& blocks()
{
    static Blocks all;
    return all;
}

}  // namespace

void* VirtualAlloc(void* address, size_t size, DWORD, DWORD protection)
{
    void* const block =
        mmap(address, size, protectionBits(protection), MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (block == MAP_FAILED)
        return nullptr;
    const std::lock_guard guard(blocks().lock);
    blocks().sizes[block] = size;
    return block;
}

BOOL VirtualFree(void* address, size_t, DWORD)
{
    const std::lock_guard guard(blocks().lock);
    const auto entry = blocks().sizes.extract(address);
    return !entry.empty() && munmap(address, entry.mapped()) == 0 ? TRUE
                                                                  : failed(ERROR_INVALID_PARAMETER);
}

size_t VirtualQuery(const void* address, MEMORY_BASIC_INFORMATION* information, size_t size)
{
    information->Protect = currentProtection(reinterpret_cast<uintptr_t>(address));
    return information->Protect != 0 ? size : 0;
}

BOOL VirtualProtect(void* address, size_t size, DWORD protection, DWORD* previous)
{
    const auto pageSize = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto begin = reinterpret_cast<uintptr_t>(address) & ~(pageSize - 1);
    const uintptr_t end = reinterpret_cast<uintptr_t>(address) + size;
    *previous = currentProtection(begin);
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the beginning of the page.
    const int result =
        mprotect(reinterpret_cast<void*>(begin), end - begin, protectionBits(protection));
    return *previous != 0 && result == 0 ? TRUE : failed(ERROR_INVALID_PARAMETER);
}
