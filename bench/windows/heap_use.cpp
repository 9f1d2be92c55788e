// Walks the heaps.

#include "heap_use.h"

#include <array>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <vector>

#include <windows.h>

namespace NV::bench {

namespace {

constexpr DWORD mostHeaps = 64;

HeapUse walk()
{
    std::array<HANDLE, mostHeaps> heaps{};
    const DWORD count = GetProcessHeaps(mostHeaps, heaps.data());
    if (count == 0 || count > mostHeaps)
        throw std::runtime_error("the process's heaps cannot be listed");
    HeapUse use;
    for (DWORD i = 0; i < count; ++i) {
        PROCESS_HEAP_ENTRY entry{};
        while (HeapWalk(heaps[i], &entry)) {
            if ((entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) == 0)
                continue;
            ++use.blocks;
            use.bytes += entry.cbData;
        }
        if (GetLastError() != ERROR_NO_MORE_ITEMS)
            throw std::runtime_error("a heap cannot be walked");
    }
    return use;
}

struct Freer {
    void operator()(void* block) const { std::free(block); }
};

// The figures would mean nothing if a heap reported a hundred small blocks as one large block.
void expectBlocksAreSeen()
{
    constexpr size_t blockCount = 100;
    constexpr size_t blockSize = 40;
    std::vector<std::unique_ptr<void, Freer>> blocks(blockCount);
    const HeapUse before = walk();
    for (auto& block : blocks)
        block.reset(std::malloc(blockSize));
    const HeapUse after = walk();
    if (after.blocks - before.blocks != blockCount ||
        after.bytes - before.bytes != blockCount * blockSize)
        throw std::runtime_error("the heaps do not show each block");
}

}  // namespace

HeapUse heapUse()
{
    expectBlocksAreSeen();
    return walk();
}

}  // namespace NV::bench
