// The wrapped functions of the C heap.

#include "heap_count.h"

#include <atomic>
#include <cstddef>

namespace {

std::atomic<long> liveBlocks = 0;

}  // namespace

// The linker's names for the wrapped and the wrapping functions.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* block, size_t size);
void __real_free(void* block);

void* __wrap_malloc(size_t size);
void* __wrap_calloc(size_t count, size_t size);
void* __wrap_realloc(void* block, size_t size);
void __wrap_free(void* block);

void* __wrap_malloc(size_t size)
{
    ++liveBlocks;
    return __real_malloc(size);
}

void* __wrap_calloc(size_t count, size_t size)
{
    ++liveBlocks;
    return __real_calloc(count, size);
}

void* __wrap_realloc(void* block, size_t size)
{
    if (block == nullptr)
        ++liveBlocks;
    return __real_realloc(block, size);
}

void __wrap_free(void* block)
{
    if (block != nullptr)
        --liveBlocks;
    __real_free(block);
}
}
// NOLINTEND(bugprone-reserved-identifier)

namespace NV::test {

long liveHeapBlocks()
{
    return liveBlocks;
}

}  // namespace NV::test
