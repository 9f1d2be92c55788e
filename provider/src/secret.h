// Memory for PINs and agreed secrets: it is overwritten before it goes back to the heap.

#pragma once

#include <cstddef>
#include <memory>
#include <vector>

namespace NV {

// Overwrites with zeros in a way that the compiler does not leave out.
inline void wipe(void* data, size_t size)
{
    volatile auto* bytes = static_cast<volatile unsigned char*>(data);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = 0;
}

template <typename T>
struct WipingAllocator {
    using value_type = T;

    WipingAllocator() = default;
    template <typename U>
    WipingAllocator(const WipingAllocator<U>&)
    {
    }

    T* allocate(size_t count) { return std::allocator<T>().allocate(count); }
    void deallocate(T* data, size_t count)
    {
        wipe(data, count * sizeof(T));
        std::allocator<T>().deallocate(data, count);
    }

    friend bool operator==(const WipingAllocator&, const WipingAllocator&) { return true; }
};

// A vector, because a short std::string lies in the object itself and would not be wiped.
using SecretBytes = std::vector<unsigned char, WipingAllocator<unsigned char>>;
using SecretWideText = std::vector<wchar_t, WipingAllocator<wchar_t>>;

}  // namespace NV
