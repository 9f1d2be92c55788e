// Tells whether one block of memory went back to the heap. Used by the tests of who owns the init
// arguments.

#pragma once

namespace NV::test {

// Watches a block made by new, through the program's operator delete. One at a time.
class WatchedBlock {
public:
    explicit WatchedBlock(const void* block);
    ~WatchedBlock();
    WatchedBlock(const WatchedBlock&) = delete;
    WatchedBlock& operator=(const WatchedBlock&) = delete;

    static bool released();
};

}  // namespace NV::test
