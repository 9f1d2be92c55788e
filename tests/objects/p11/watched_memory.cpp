// The program's own operators new and delete, over the C heap, with an eye on one block.

#include "watched_memory.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<const void*> watched;
std::atomic<bool> wasReleased;

void release(void* block) noexcept
{
    if (block != nullptr && block == watched)
        wasReleased = true;
    std::free(block);
}

}  // namespace

void* operator new(size_t size)
{
    void* block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr)
        throw std::bad_alloc();
    return block;
}

void* operator new(size_t size, const std::nothrow_t&) noexcept
{
    return std::malloc(size == 0 ? 1 : size);
}

void operator delete(void* block) noexcept
{
    release(block);
}

void operator delete(void* block, const std::nothrow_t&) noexcept
{
    release(block);
}

void operator delete(void* block, size_t) noexcept
{
    release(block);
}

namespace NV::test {

WatchedBlock::WatchedBlock(const void* block)
{
    wasReleased = false;
    watched = block;
}

WatchedBlock::~WatchedBlock()
{
    watched = nullptr;
}

bool WatchedBlock::released()
{
    return wasReleased;
}

}  // namespace NV::test
