// Blocks of the C heap: those that CNG releases through FreeBuffer, and the texts that they refer
// to, in blocks of their own or in the same one.

#pragma once

#include <cstdlib>
#include <cwchar>
#include <memory>
#include <string_view>
#include <utility>

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

// One block with records, and behind them the texts that they refer to.
template <typename Record>
class RecordBlock {
public:
    // The characters are those of all texts, each with a terminator.
    RecordBlock(size_t records, size_t characters)
        : block_(allocateOnHeap<Record>(records * sizeof(Record) + characters * sizeof(wchar_t)))
    {
        if (block_ != nullptr)
            text_ = reinterpret_cast<wchar_t*>(block_.get() + records);
    }

    // Null if there is no memory; then nothing may be added.
    Record* records() const { return block_.get(); }
    // Adds a text and returns its copy.
    wchar_t* add(std::wstring_view text)
    {
        wchar_t* copy = text_;
        text_ += text.copy(copy, text.size());
        *text_++ = L'\0';
        return copy;
    }
    HeapBlock<Record> release() { return std::move(block_); }

private:
    HeapBlock<Record> block_;
    wchar_t* text_ = nullptr;  // where the next text goes
};

}  // namespace NV
