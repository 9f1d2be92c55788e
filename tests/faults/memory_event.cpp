// The replaced operator new, and the gate of the C heap.

#include "memory_event.h"

#include <atomic>
#include <cstdlib>
#include <limits>
#include <new>

#include "heap_count.h"

namespace NV::test {

namespace {

constexpr size_t unlimited = std::numeric_limits<size_t>::max();

// Plain numbers: an operator new may run before any constructor and inside any lock.
constinit std::atomic<size_t> allocations = 0;
constinit std::atomic<size_t> nthFails = 0;
constinit std::atomic<bool> laterFail = false;
constinit std::atomic<bool> struck = false;
constinit std::atomic<MemoryKind> struckKind = MemoryKind::operatorNew;
constinit std::atomic<size_t> limit = unlimited;
constinit std::atomic<size_t> bytesAtStart = 0;
constinit std::atomic<size_t> growthAsked = 0;
// The C heap is asked by operator new.
constinit std::atomic<unsigned> insideNew = 0;

bool overLimit(size_t size)
{
    if (limit == unlimited)
        return false;
    const size_t now = liveHeapBytes();
    const size_t grown = (now > bytesAtStart ? now - bytesAtStart : 0) + size;
    if (grown > growthAsked)
        growthAsked = grown;
    return grown > limit;
}

bool fails(MemoryKind kind, size_t size)
{
    if (overLimit(size))
        return true;
    const size_t nth = nthFails;
    if (nth == 0 || kind != struckKind)
        return false;
    const size_t now = ++allocations;
    const bool failing = now == nth || (now > nth && laterFail);
    if (failing)
        struck = true;
    return failing;
}

bool cHeapGate(size_t size)
{
    return insideNew != 0 || !fails(MemoryKind::cHeap, size);
}

void* allocate(size_t size)
{
    if (fails(MemoryKind::operatorNew, size))
        return nullptr;
    ++insideNew;
    void* block = std::malloc(size != 0 ? size : 1);
    --insideNew;
    return block;
}

void* allocateOrThrow(size_t size)
{
    void* block = allocate(size);
    if (block == nullptr)
        throw std::bad_alloc();
    return block;
}

}  // namespace

// An exception that finds no memory takes it from a reserve of the runtime library. The first one
// to do so allocates the reserve's lock, which must not fail.
MemoryEvent::MemoryEvent(MemoryKind kind) : kind_(kind)
{
    MemoryEvent::arm(1, Extent::once);
    try {
        throw kind;
    } catch (MemoryKind) {
        MemoryEvent::disarm();
    }
}

void MemoryEvent::arm(size_t nth, Extent extent)
{
    allocations = 0;
    struck = false;
    struckKind = kind_;
    laterFail = extent == Extent::fromThenOn;
    setAllocationGate(&cHeapGate);
    nthFails = nth;
}

bool MemoryEvent::disarm()
{
    nthFails = 0;
    setAllocationGate(nullptr);
    return struck;
}

MemoryLimit::MemoryLimit(size_t bytes)
{
    growthAsked = 0;
    bytesAtStart = liveHeapBytes();
    limit = bytes;
    setAllocationGate(&cHeapGate);
}

MemoryLimit::~MemoryLimit()
{
    setAllocationGate(nullptr);
    limit = unlimited;
}

size_t MemoryLimit::mostAsked()
{
    return growthAsked;
}

}  // namespace NV::test

void* operator new(size_t size)
{
    return NV::test::allocateOrThrow(size);
}

void* operator new[](size_t size)
{
    return NV::test::allocateOrThrow(size);
}

void* operator new(size_t size, const std::nothrow_t&) noexcept
{
    return NV::test::allocate(size);
}

void* operator new[](size_t size, const std::nothrow_t&) noexcept
{
    return NV::test::allocate(size);
}

void operator delete(void* block) noexcept
{
    std::free(block);
}

void operator delete[](void* block) noexcept
{
    std::free(block);
}

void operator delete(void* block, size_t) noexcept
{
    std::free(block);
}

void operator delete[](void* block, size_t) noexcept
{
    std::free(block);
}

void operator delete(void* block, const std::nothrow_t&) noexcept
{
    std::free(block);
}

void operator delete[](void* block, const std::nothrow_t&) noexcept
{
    std::free(block);
}
