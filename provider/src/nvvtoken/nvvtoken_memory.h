// Blocks of the C heap: those that CNG releases through FreeBuffer, and the texts that they refer
// to.

#pragma once

#include <cstdlib>
#include <cwchar>
#include <memory>

namespace NV {

struct HeapFreer {
    void operator()(void* block) const { std::free(block); }
};

template <typename T>
using HeapBlock = std::unique_ptr<T, HeapFreer>;

// A block of `size` bytes. Null if there is no memory.
template <typename T>
HeapBlock<T> allocateOnHeap(size_t size = sizeof(T))
{
    return HeapBlock<T>(static_cast<T*>(std::malloc(size)));
}

// A copy of a text, terminator included. Null if there is no memory.
inline HeapBlock<wchar_t> copyToHeap(const wchar_t* text)
{
    const size_t length = std::wcslen(text) + 1;
    auto block = allocateOnHeap<wchar_t>(length * sizeof(wchar_t));
    if (block != nullptr)
        std::wmemcpy(block.get(), text, length);
    return block;
}

}  // namespace NV
