// Write access to memory that may be read-only, for the repair of a library's function list.

#pragma once

#include <windows.h>

#include <array>
#include <cstddef>

namespace NV {

// Makes a block of at most one page writable for as long as the object lives, and then puts the
// protection of its pages back. Memory that is writable stays as it is.
class WritableMemory {
public:
    // The size is in bytes and not 0.
    WritableMemory(void* block, size_t size);
    ~WritableMemory();
    WritableMemory(const WritableMemory&) = delete;
    WritableMemory& operator=(const WritableMemory&) = delete;

    // False if the system refuses.
    bool writable() const { return writable_; }

private:
    struct Page {
        void* address = nullptr;
        DWORD protection = 0;  // to put back; 0: nothing to do
    };

    bool open(Page& page);

    std::array<Page, 2> pages_;  // a block of one page's size can touch two
    bool writable_ = true;
};

}  // namespace NV
