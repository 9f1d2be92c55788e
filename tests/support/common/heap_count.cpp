// The wrapped functions of the C heap.

#include "heap_count.h"

#include <atomic>

#include <malloc.h>

namespace {

std::atomic<long> liveBlocks = 0;
std::atomic<size_t> liveBytes = 0;
std::atomic<size_t> peakBytes = 0;
std::atomic<NV::test::AllocationGate> gate = nullptr;
std::atomic<NV::test::ReleaseWatch> watch = nullptr;

size_t sizeOf(void* block)
{
#ifdef _WIN32
    return _msize(block);
#else
    return malloc_usable_size(block);
#endif
}

bool allowed(size_t size)
{
    const NV::test::AllocationGate asked = gate;
    return asked == nullptr || asked(size);
}

void* counted(void* block)
{
    if (block == nullptr)
        return nullptr;
    ++liveBlocks;
    const size_t now = liveBytes += sizeOf(block);
    size_t peak = peakBytes;
    while (now > peak && !peakBytes.compare_exchange_weak(peak, now)) {}
    return block;
}

void uncount(void* block)
{
    if (block == nullptr)
        return;
    --liveBlocks;
    liveBytes -= sizeOf(block);
}

}  // namespace

// The linker's names for the wrapped and the wrapping functions.
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
    return allowed(size) ? counted(__real_malloc(size)) : nullptr;
}

void* __wrap_calloc(size_t count, size_t size)
{
    return allowed(count * size) ? counted(__real_calloc(count, size)) : nullptr;
}

void* __wrap_realloc(void* block, size_t size)
{
    if (!allowed(size))
        return nullptr;
    uncount(block);
    void* moved = __real_realloc(block, size);
    // The old block is still there.
    if (moved == nullptr && size != 0)
        counted(block);
    return counted(moved);
}

void __wrap_free(void* block)
{
    if (const NV::test::ReleaseWatch looking = watch; looking != nullptr && block != nullptr)
        looking(block, sizeOf(block));
    uncount(block);
    __real_free(block);
}
}

namespace NV::test {

long liveHeapBlocks()
{
    return liveBlocks;
}

size_t liveHeapBytes()
{
    return liveBytes;
}

size_t peakHeapBytes()
{
    return peakBytes;
}

void forgetPeakHeapBytes()
{
    peakBytes = liveBytes.load();
}

void setAllocationGate(AllocationGate newGate)
{
    gate = newGate;
}

void setReleaseWatch(ReleaseWatch newWatch)
{
    watch = newWatch;
}

}  // namespace NV::test
