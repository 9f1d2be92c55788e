// Blocks of the C heap: those that CNG releases through FreeBuffer, and the texts that they refer
// to.

#pragma once

#include <cstdlib>
#include <cwchar>
#include <memory>
#include <new>

namespace NV {

struct HeapFreer {
    void operator()(void* block) const { std::free(block); }
};

template <typename T>
using HeapBlock = std::unique_ptr<T, HeapFreer>;

// A block of `size` bytes. Throws std::bad_alloc.
template <typename T>
HeapBlock<T> allocateOnHeap(size_t size = sizeof(T))
{
    HeapBlock<T> block(static_cast<T*>(std::malloc(size)));
    if (block == nullptr)
        throw std::bad_alloc();
    return block;
}

// A copy of a text, terminator included.
inline HeapBlock<wchar_t> copyToHeap(const wchar_t* text)
{
    const size_t length = std::wcslen(text) + 1;
    auto block = allocateOnHeap<wchar_t>(length * sizeof(wchar_t));
    std::wmemcpy(block.get(), text, length);
    return block;
}

}  // namespace NV
