// The wrapped functions.

#include "memory.h"

#include <cstddef>
#include <new>
#include <utility>

namespace {

long blocks = 0;
uint32_t untilFailure = 0;
bool failed = false;
void* nothrowBlock = nullptr;

// Whether this allocation must fail.
bool fails()
{
    if (untilFailure == 0 || --untilFailure != 0)
        return false;
    failed = true;
    return true;
}

template <typename Allocate>
void* counted(const Allocate& allocate)
{
    void* const block = fails() ? nullptr : allocate();
    blocks += block != nullptr ? 1 : 0;
    return block;
}

void forget(const void* block)
{
    if (block == nullptr)
        return;
    --blocks;
    if (block == nothrowBlock)
        nothrowBlock = nullptr;
}

}  // namespace

// The linker's names for the wrapped and the wrapping functions.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* block, size_t size);
void __real_free(void* block);
void* __real__Znwm(size_t size);
void* __real__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t& tag);
void __real__ZdlPv(void* block);
void __real__ZdlPvm(void* block, size_t size);
void __real__ZdlPvRKSt9nothrow_t(void* block, const std::nothrow_t& tag);

void* __wrap_malloc(size_t size);
void* __wrap_calloc(size_t count, size_t size);
void* __wrap_realloc(void* block, size_t size);
void __wrap_free(void* block);
void* __wrap__Znwm(size_t size);
void* __wrap__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t& tag);
void __wrap__ZdlPv(void* block);
void __wrap__ZdlPvm(void* block, size_t size);
void __wrap__ZdlPvRKSt9nothrow_t(void* block, const std::nothrow_t& tag);

void* __wrap_malloc(size_t size)
{
    return counted([=] { return __real_malloc(size); });
}

void* __wrap_calloc(size_t count, size_t size)
{
    return counted([=] { return __real_calloc(count, size); });
}

void* __wrap_realloc(void* block, size_t size)
{
    if (block == nullptr)
        return __wrap_malloc(size);
    return fails() ? nullptr : __real_realloc(block, size);
}

void __wrap_free(void* block)
{
    forget(block);
    __real_free(block);
}

void* __wrap__Znwm(size_t size)
{
    void* const block = counted([=] { return __real__Znwm(size); });
    if (block == nullptr)
        throw std::bad_alloc();
    return block;
}

void* __wrap__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t& tag)
{
    nothrowBlock = counted([&] { return __real__ZnwmRKSt9nothrow_t(size, tag); });
    return nothrowBlock;
}

void __wrap__ZdlPv(void* block)
{
    forget(block);
    __real__ZdlPv(block);
}

void __wrap__ZdlPvm(void* block, size_t size)
{
    forget(block);
    __real__ZdlPvm(block, size);
}

void __wrap__ZdlPvRKSt9nothrow_t(void* block, const std::nothrow_t& tag)
{
    forget(block);
    __real__ZdlPvRKSt9nothrow_t(block, tag);
}
}
// NOLINTEND(bugprone-reserved-identifier)

namespace NV::fuzz {

long liveBlocks()
{
    return blocks;
}

uint32_t failAllocation(uint32_t nth)
{
    return std::exchange(untilFailure, nth);
}

bool takeAllocationFailed()
{
    return std::exchange(failed, false);
}

void* takeNothrowBlock()
{
    return std::exchange(nothrowBlock, nullptr);
}

}  // namespace NV::fuzz
