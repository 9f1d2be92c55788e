// Memory for PINs and agreed secrets: it is overwritten before it goes back to the heap.

#pragma once

#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "base/encoding.h"

namespace NV {

// Zeroes memory; the barrier stops the compiler from removing it.
inline void wipe(void* data, size_t size)
{
    if (size == 0)
        return;
    std::memset(data, 0, size);
    asm volatile("" : : "r"(data) : "memory");
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

// Vectors, because a short std::string is stored in the object and would not be wiped.
using SecretBytes = std::vector<unsigned char, WipingAllocator<unsigned char>>;
using SecretText = std::vector<char, WipingAllocator<char>>;
using SecretWideText = std::vector<wchar_t, WipingAllocator<wchar_t>>;

// Wipes memory of another owner at the end of the scope: a text or a buffer that may have contained
// a secret. The memory must outlive this object and must not move.
class WipedAtEnd {
public:
    WipedAtEnd(void* data, size_t size) : data_(data), size_(size) {}
    explicit WipedAtEnd(std::string& text) : WipedAtEnd(text.data(), text.size()) {}
    ~WipedAtEnd() { wipe(data_, size_); }
    WipedAtEnd(const WipedAtEnd&) = delete;
    WipedAtEnd& operator=(const WipedAtEnd&) = delete;

private:
    void* data_;
    size_t size_;
};

// Upper-case hexadecimal with a terminating zero. The text is as secret as the bytes.
inline SecretText secretHex(const unsigned char* data, size_t length)
{
    SecretText text;
    text.reserve(2 * length + 1);
    for (size_t i = 0; i < length; ++i)
        text.insert(text.end(), detail::hexPairs[data[i]].begin(), detail::hexPairs[data[i]].end());
    text.push_back('\0');
    return text;
}

inline SecretText secretHex(const SecretBytes& bytes)
{
    return secretHex(bytes.data(), bytes.size());
}

}  // namespace NV
