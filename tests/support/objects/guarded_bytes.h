// Bytes that end where readable memory ends, so that reading one byte too many crashes. Used by the
// tests of blobs and buffers here and in module/secrets.

#pragma once

#include <windows.h>

#include <algorithm>
#include <memory>
#include <new>
#include <span>

namespace NV::test {

class GuardedBytes {
public:
    // At most a page.
    explicit GuardedBytes(std::span<const unsigned char> bytes) : size_(bytes.size())
    {
        constexpr size_t page = 4096;
        pages_.reset(static_cast<unsigned char*>(
            VirtualAlloc(nullptr, 2 * page, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE)));
        DWORD previous = 0;
        if (pages_ == nullptr || size_ > page ||
            !VirtualProtect(pages_.get() + page, page, PAGE_NOACCESS, &previous))
            throw std::bad_alloc();
        data_ = pages_.get() + page - size_;
        std::ranges::copy(bytes, data_);
    }

    unsigned char* data() const { return data_; }
    DWORD size() const { return static_cast<DWORD>(size_); }

private:
    struct Release {
        void operator()(unsigned char* pages) const { VirtualFree(pages, 0, MEM_RELEASE); }
    };

    std::unique_ptr<unsigned char, Release> pages_;
    unsigned char* data_ = nullptr;
    size_t size_;
};

}  // namespace NV::test
