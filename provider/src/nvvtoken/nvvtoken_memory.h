// Blocks of the C heap: those that CNG releases through FreeBuffer, and the texts that they refer
// to, in blocks of their own or in the same one.

#pragma once

#include <cstdlib>
#include <cwchar>
#include <memory>
#include <string_view>

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

// A block of records with room behind them for the texts that they refer to, as many characters in all,
// terminators included. Null if there is no memory.
template <typename Record>
HeapBlock<Record> allocateWithTexts(size_t records, size_t characters)
{
    return allocateOnHeap<Record>(records * sizeof(Record) + characters * sizeof(wchar_t));
}

// Fills the room behind the records.
class TextsBehind {
public:
    // The end of the records.
    explicit TextsBehind(void* place) : place_(static_cast<wchar_t*>(place)) {}

    // Adds a text with a terminator and returns its copy.
    wchar_t* add(std::wstring_view text)
    {
        wchar_t* copy = place_;
        place_ += text.copy(copy, text.size());
        *place_++ = L'\0';
        return copy;
    }

private:
    wchar_t* place_;
};

}  // namespace NV
